#!/usr/bin/env bash
# boot_root.sh ROOT SCRIPT: starts the systemd of a root file system in namespaces of its own, with a
# process bus (bus0 and ied0), and runs SCRIPT in it. Its output and exit status are those of the
# script. Needs root. Everything that it starts ends with it.
# shellcheck disable=SC2016,SC2317  # Other shells run the functions and expand the texts.
set -euo pipefail
root=$(readlink -f "$1")
limit=240 # Seconds.

cp "$2" "$root/check.sh"
: >"$root/check.log"
cat >"$root/etc/systemd/system/check.service" <<'TEXT'
[Unit]
DefaultDependencies=no
Requires=basic.target
After=basic.target
# In a container these end the first process, and with it all others.
SuccessAction=exit
SuccessActionExitStatus=0
FailureAction=exit
FailureActionExitStatus=1

[Service]
Type=oneshot
ExecStart=/bin/sh -eu /check.sh
TimeoutStartSec=180
StandardOutput=append:/check.log
StandardError=append:/check.log
TEXT

# systemd keeps its units in a cgroup hierarchy, here below a group of this script's own.
groups=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET)
group=$groups/package-test-$$
outer=$groups$(sed -n 's/^0:://p' /proc/self/cgroup)
mkdir "$group"
leave_group() {
  echo $$ >"$outer/cgroup.procs"
  for ((try = 0; try < 50; ++try)); do
    if find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; then break; fi
    sleep 0.1
  done
  rm -f "$root/etc/systemd/system/check.service" "$root/check.sh" "$root/check.log"
}
trap leave_group EXIT
echo $$ >"$group/cgroup.procs"

# Runs as the first process of the namespaces and becomes the root's systemd.
first_process() {
  set -e
  mount --bind "$1" "$1"
  cd "$1"
  mount -t proc proc proc
  mount -t sysfs sysfs sys
  mount -t cgroup2 cgroup2 sys/fs/cgroup
  mount -t tmpfs -o mode=755 tmpfs run
  mount -t tmpfs -o mode=755 tmpfs dev
  for device in null zero full random urandom tty; do
    touch "dev/$device"
    mount --bind "/dev/$device" "dev/$device"
  done
  mkdir dev/pts dev/shm run/old
  mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
  ln -s pts/ptmx dev/ptmx
  ip link set lo up
  ip link add bus0 type veth peer name ied0
  ip link set bus0 up
  ip link set ied0 up
  pivot_root . run/old
  umount --lazy run/old
  exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --unit=check.service --show-status=no --log-target=null
}
export -f first_process

status=0
timeout --signal=KILL "$limit" unshare --net --pid --fork --kill-child --mount --uts --ipc --cgroup \
  bash -c 'first_process "$1"' - "$root" </dev/null || status=$?
cat "$root/check.log"
exit "$status"
