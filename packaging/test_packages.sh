#!/usr/bin/env bash
# Proves the Debian packages in a bare Debian 12 root: lintian, installation, the programs at work,
# the examples built against the development package, the unit's hardening, and a removal that leaves
# nothing. Needs root, apt's mirror and some minutes, and leaves nothing on the machine.
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
cd "$here/.."
# shellcheck source=scripts/common.sh
source scripts/common.sh

usage() {
  cat <<'TEXT'
Usage: packaging/test_packages.sh [options]

  --packages FOLDER  test the .deb files there instead of building them
  --base FOLDER      copy this root of a bare Debian 12 instead of making one with debootstrap
  --help             this text
TEXT
}

limit=900 # Seconds for each step that uses the network or a compiler.
max_exposure=20 # Tenths, of `systemd-analyze security`.
packages='' base=''
while (($#)); do
  case $1 in
    --packages | --base)
      (($# > 1)) || fail "$1 needs a folder"
      printf -v "${1#--}" %s "$(readlink -f "$2")"
      shift
      ;;
    --help) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
  esac
  shift
done
((EUID == 0)) || fail "needs root: it makes a root file system and enters it"
ensure_packages debootstrap lintian systemd iproute2 util-linux

# The folder's name must not hold the product's: the search for leftovers is for that.
work=$(mktemp -d /var/tmp/package-test-XXXXXX)
root=$work/root
trap 'rm -rf --one-file-system "$work"' EXIT

step() { printf '\n== %s\n' "$*"; }

# With a /proc of its own, and every process in it ended with the command.
in_root() {
  timeout "$limit" unshare --pid --fork --kill-child --mount-proc="$root/proc" \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    chroot "$root" "$@"
}

make_root() {
  if [[ -n $base ]]; then
    cp -a --one-file-system "$base" "$root"
  else
    local mirror
    # shellcheck disable=SC2016  # The name of a field.
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' \
      'Created-By: Packages' | head -1)
    timeout "$limit" debootstrap --variant=minbase bookworm "$root" "$mirror" >"$work/log" 2>&1 ||
      { tail "$work/log" && fail "debootstrap failed"; }
  fi
  # Apt as this machine has it. No service starts by being installed.
  rm -rf "$root"/etc/apt/sources.list*
  cp -a /etc/apt/sources.list* "$root/etc/apt/"
  cp /etc/resolv.conf "$root/etc/"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  mkdir -p "$root/packages"
  cp "$packages"/*.deb "$root/packages"
  in_root apt-get -q -q update
}

# All files but those that package management itself writes.
snapshot() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./var/cache \
    -o -path ./var/log -o -path ./var/lib/dpkg -o -path ./var/lib/apt \) -prune \
    -o -printf '%p %y %m %u %g %l\n' | sort)
}

# Those on each other are among the packages themselves.
install_dependencies() {
  local package
  for package in "$root"/packages/*.deb; do
    in_root apt-get -q -q -y --no-install-recommends satisfy \
      "$(dpkg-deb -f "$package" Depends | sed 's/tarnlinkd ([^)]*), //')" >>"$work/log" 2>&1 ||
      { tail "$work/log" && fail "dependencies of ${package##*/} cannot be installed"; }
  done
}

package_names() {
  local package
  for package in "$packages"/*.deb; do dpkg-deb -f "$package" Package; done
}

show_sizes() {
  local package
  for package in "$packages"/*.deb; do
    printf '%-45s %6d KiB, installed %6d KiB\n' "${package##*/}" \
      $(($(stat -c %s "$package") / 1024)) "$(dpkg-deb -f "$package" Installed-Size)"
  done
}

# Runs inside the root, in a network of its own: bridge, client and simulated IED, all as installed.
bridge_at_work() {
  cat <<'TEXT'
set -eu
tarnlinkd --version
tarnlinkd --port 18765 --interface bus0 --low-latency --preferences /tmp/p.json >/tmp/bridge.log &
bridge=$!
for try in 1 2 3 4 5 6 7 8 9 10; do
  if grep -q 'Listening on port 18765' /tmp/bridge.log; then break; fi
  sleep 0.5
done
code=$(tarnlinkd --show-pairing-code --preferences /tmp/p.json)
export TARNLINK_CODE=$code
tarnlinkctl --port 18765 ping
tarnlinkctl --port 18765 interfaces | grep bus0
tarnlink-ied --interface ied0 --interval 100 --count 60 >/tmp/ied.log &
timeout 20 tarnlinkctl --port 18765 subscribe goose --count 2
kill -TERM "$bridge"
wait "$bridge"
grep -F '[BridgeServer] Stopped' /tmp/bridge.log
rm -f /tmp/p.json* /tmp/bridge.log /tmp/ied.log
TEXT
}

# The desktop program starts its own copy of the bridge, and an upgrade keeps that one's access.
desktop_at_work() {
  cat <<'TEXT'
set -eu
private=/usr/libexec/tarnlink
tarnlink --version
desktop-file-validate /usr/share/applications/com.korvel.tarnlink.desktop
xmllint --noout --nonet /usr/share/polkit-1/actions/com.korvel.tarnlink.policy
grep -qF ">$private/tarnlink-capture-access<" /usr/share/polkit-1/actions/com.korvel.tarnlink.policy
test -x "$private/tarnlink-capture-access"

QT_QPA_PLATFORM=offscreen tarnlink >/tmp/desktop.log 2>&1 &
desktop=$!
for try in 1 2 3 4 5 6 7 8 9 10; do
  if grep -q 'Listening on port 8765' /tmp/desktop.log; then break; fi
  sleep 0.5
done
tarnlinkctl ping
kill -TERM "$desktop"
wait "$desktop" || true
if tarnlinkctl ping 2>/dev/null; then exit 1; fi
rm -rf /tmp/desktop.log /root/.config

SUDO_UID=1000 "$private/tarnlink-capture-access"
getfacl --omit-header "$private/tarnlinkd" >/tmp/before
grep user:1000:r-x /tmp/before
dpkg --install /packages/tarnlink-desktop_*.deb >/dev/null
getfacl --omit-header "$private/tarnlinkd" >/tmp/after
diff /tmp/before /tmp/after
getcap "$private/tarnlinkd" | grep cap_net_raw=ep
rm -f /tmp/before /tmp/after
TEXT
}

in_root_with_bus() {
  unshare --net bash -c '
    ip link set lo up && ip link add bus0 type veth peer name ied0 &&
    ip link set bus0 up && ip link set ied0 up && "$@"' - \
    unshare --pid --fork --kill-child --mount-proc="$root/proc" \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root timeout 90 chroot "$root" "$@"
}

# They stand in the package, for users to begin with.
build_examples() {
  in_root apt-get -q -q -y --no-install-recommends install g++ cmake make >>"$work/log" 2>&1
  in_root sh -c 'cmake -S /usr/share/doc/libgoosestack-dev/examples -B /tmp/examples >/dev/null &&
    cmake --build /tmp/examples >/dev/null'
  tests/examples_test.sh "$root/tmp/examples"
  rm -r "$root/tmp/examples"
}

# The service under a systemd of its own, as its unit confines it.
check_service() {
  in_root apt-get -q -q -y --no-install-recommends install systemd systemd-sysv dbus libnss-systemd \
    avahi-daemon avahi-utils >>"$work/log" 2>&1
  in_root sh -c 'dpkg --install /packages/tarnlinkd_*.deb /packages/tarnlink-tools_*.deb' >/dev/null
  packaging/test/boot_root.sh "$root" packaging/test/service_check.sh
}

check_unit() {
  local unit=$root/lib/systemd/system/tarnlinkd.service
  systemd-analyze security --offline=true --threshold="$max_exposure" "$unit" | tail -1
}

if [[ -z $packages ]]; then
  step "building the packages"
  packages=$work/packages
  packaging/build_packages.sh "$packages" >"$work/build.log" 2>&1 ||
    { tail -20 "$work/build.log" && fail "the packages do not build"; }
fi
step "sizes"
show_sizes
step "lintian"
lintian --fail-on error --suppress-tags bad-distribution-in-changes-file "$packages"/*.deb
step "a bare Debian 12"
make_root
install_dependencies
# What the checks themselves use.
in_root apt-get -q -q -y --no-install-recommends install desktop-file-utils libxml2-utils \
  >>"$work/log" 2>&1
snapshot >"$work/before"
step "installation"
in_root sh -c 'dpkg --install /packages/*.deb'
step "the unit's hardening"
check_unit
step "the programs at work"
in_root_with_bus sh -c "$(bridge_at_work)"
step "the desktop program at work"
in_root_with_bus sh -c "$(desktop_at_work)"
step "removal"
mapfile -t names < <(package_names)
in_root dpkg --remove "${names[@]}"
in_root dpkg --purge "${names[@]}"
snapshot >"$work/after"
diff "$work/before" "$work/after" || fail "the removal does not leave the root as it was"
step "the examples built against libgoosestack-dev"
in_root sh -c 'dpkg --install /packages/libgoosestack-dev_*.deb' >/dev/null
build_examples
step "the service"
check_service
step "removal under systemd"
in_root dpkg --purge tarnlinkd tarnlink-tools
left=$(in_root getent passwd tarnlinkd || true
  cd "$root" && find etc/systemd usr/lib/systemd var/lib -path var/lib/dpkg -prune -o -name '*tarnlink*' -print)
[[ -z $left ]] || fail "the removal leaves $left"
say "all checks passed"
