# shellcheck shell=bash
# What run, test and .ci/run share. Sourced from the top of the tree. Messages go to standard error,
# so that standard output stays the programs'.

# shellcheck source=scripts/packages.sh
source scripts/packages.sh

# Lets ccache, where it is installed, serve one clone with what another has built.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1

say() { printf '%s\n' "${0##*/}: $*" >&2; }

fail() {
  say "$*"
  exit 1
}

# Those of the packages $@ that are not installed, one a line.
missing_packages() {
  local -A installed=()
  local package status
  while read -r package status; do
    [[ $status == installed ]] && installed[$package]=1
  done < <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "$@" 2>/dev/null)
  for package in "$@"; do
    [[ -n ${installed[$package]:-} ]] || printf '%s\n' "$package"
  done
}

# Installs those of the packages $@ that are missing. Asks for sudo only when there are some.
ensure_packages() {
  if ! command -v dpkg-query >/dev/null; then
    say "this is no Debian system; going on with the tools that are there"
    return
  fi
  local missing as_root=()
  mapfile -t missing < <(missing_packages "$@")
  ((${#missing[@]})) || return 0
  say "installing with apt: ${missing[*]}"
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      fail "no sudo here; run as root: apt-get install --no-install-recommends ${missing[*]}"
    say "sudo may ask for your password: installing packages needs root"
    as_root=(sudo)
  fi
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y
    -o DPkg::Lock::Timeout=120)
  "${apt[@]}" update >&2 || fail "apt-get update failed"
  "${apt[@]}" install --no-install-recommends "${missing[@]}" >&2 || fail "apt-get install failed"
}

# configure PRESET [-DNAME=VALUE...]: once; later calls only when a value differs.
configure() {
  local preset=$1 cache=build/$1/CMakeCache.txt setting is_current=yes
  shift
  [[ -f build/$preset/build.ninja ]] || is_current=no
  for setting in "$@"; do
    setting=${setting#-D}
    grep -q "^${setting%%=*}:[A-Z]*=${setting#*=}\$" "$cache" 2>/dev/null || is_current=no
  done
  [[ $is_current == no ]] || return 0
  if command -v ccache >/dev/null; then
    set -- "$@" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
  fi
  cmake --preset "$preset" "$@" >&2
}

# build PRESET [TARGET...]: everything when no target is named. As many jobs as processors: more
# would only cost memory.
build() {
  local preset=$1
  shift
  cmake --build --preset "$preset" --parallel "$(nproc)" ${1:+--target "$@"} >&2
}
