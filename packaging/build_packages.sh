#!/usr/bin/env bash
# Builds the Debian packages: packaging/build_packages.sh [FOLDER]. They land in FOLDER, without it
# in build/packages/deb.
set -euo pipefail
output=$(readlink -m "${1:-$(dirname "$(readlink -f "$0")")/../build/packages/deb}")
cd "$(dirname "$(readlink -f "$0")")/.."
# shellcheck source=scripts/common.sh
source scripts/common.sh

ensure_packages "${build_packages[@]}" "${desktop_packages[@]}" dpkg-dev

# Wire data and network clients reach these programs: the distribution's hardening, less debug data.
flags() {
  DEB_BUILD_MAINT_OPTIONS=hardening=+all DEB_CFLAGS_MAINT_STRIP='-g -O2' \
    DEB_CXXFLAGS_MAINT_STRIP='-g -O2' dpkg-buildflags --get "$1"
}
launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B build/packages -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS="$(flags CXXFLAGS) $(flags CPPFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" \
  -DTARNLINK_TESTS=OFF -DTARNLINK_BENCHES=OFF "${launcher[@]}"
cmake --build build/packages --parallel "$(nproc)"

# The same tree gives the same packages.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
umask 022
mkdir -p "$output"
rm -f "$output"/*.deb
# The library has a version of its own.
version=$(sed -n 's/.*version = "\(.*\)".*/\1/p' stack/include/goosestack/version.h)
cd build/packages
cpack -G DEB -B "$output" -D CPACK_COMPONENTS_ALL='daemon;tools;desktop'
cpack -G DEB -B "$output" -D CPACK_COMPONENTS_ALL=development -D CPACK_PACKAGE_VERSION="$version"
rm -rf "$output/_CPack_Packages"
