# shellcheck shell=bash
# shellcheck disable=SC2034  # Read by the scripts that source this file.
# The Debian 12 packages, each in one place; docs/dependencies.md gives the reasons.

# To build and run the programs.
build_packages=(
  g++ cmake ninja-build pkg-config
  libboost1.81-dev libpcap-dev nlohmann-json3-dev libcli11-dev
  libssl-dev libsystemd-dev libcap-dev libavahi-client-dev
  iproute2 util-linux
)

# To build and run the desktop program as well.
desktop_packages=(qt6-base-dev qt6-svg-dev libxcb1-dev acl libcap2-bin)

# To build and run the tests and benches as well.
test_packages=(
  libgtest-dev libgmock-dev tshark
  dbus-daemon avahi-daemon avahi-utils openssl python3
)

# To test the desktop program on a display of its own.
desktop_test_packages=(dbus-daemon openbox trayer xdotool xvfb)

# For the checks beyond the tests.
ci_packages=(
  clang-14 libclang-rt-14-dev clang-format-14 clang-tidy-14 python3 shellcheck valgrind
)
