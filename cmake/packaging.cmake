# Debian packages, one for each install component; packaging/build_packages.sh makes them.
set(TARNLINK_PACKAGE_daemon tarnlinkd)
set(TARNLINK_PACKAGE_tools tarnlink-tools)
set(TARNLINK_PACKAGE_desktop tarnlink-desktop)
set(TARNLINK_PACKAGE_development libgoosestack-dev)

add_subdirectory(packaging)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL daemon tools development)
if(TARGET tarnlink)
  list(APPEND CPACK_COMPONENTS_ALL desktop)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian_files.cmake)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package has its own; CPack would write the project's before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "Tarnlink developers <developers@tarnlink.invalid>")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(control ${PROJECT_SOURCE_DIR}/packaging/debian)

# tarnlink_package(COMPONENT SECTION DESCRIPTION [NAME VALUE]...): settings as CPack names them,
# without the "CPACK_DEBIAN_<COMPONENT>_".
macro(tarnlink_package component section description)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${TARNLINK_PACKAGE_${component}})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}")
  file(GLOB CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA CONFIGURE_DEPENDS
    ${control}/${TARNLINK_PACKAGE_${component}}/*)
endmacro()

tarnlink_package(daemon net "bridge between IEC 61850 layer-2 traffic and WebSocket clients
The tarnlinkd daemon captures GOOSE and Sampled Values frames from an Ethernet
interface, serves them as JSON to WebSocket clients on the network, and
publishes both on their behalf.
.
It comes with a systemd unit, which is not enabled by the installation.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "iproute2")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS "avahi-daemon, tarnlink-tools")

tarnlink_package(tools net "command-line client of Tarnlink bridges, simulated IED
The tarnlinkctl program talks to a bridge between IEC 61850 layer-2 traffic and
WebSocket clients: it prints GOOSE messages and Sampled Values as they arrive
and publishes them.
.
The tarnlink-ied program sends GOOSE frames like a protection device, or plays
recorded captures, on a test network.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "tarnlinkd")

tarnlink_package(desktop net "status-bar bridge between IEC 61850 traffic and WebSocket clients
Captures GOOSE and Sampled Values frames from an Ethernet interface of the
workstation and serves them as JSON to WebSocket clients. An icon in the status
bar shows the pairing code and lets the user choose the interface.")
# The daemon's package has the bridge for users to whom the restricted copy is closed.
set(CPACK_DEBIAN_DESKTOP_PACKAGE_DEPENDS
  "tarnlinkd (= ${PROJECT_VERSION}), acl, libcap2-bin, pkexec")
# GNOME shows status icons by an extension alone; other desktops need none.
set(CPACK_DEBIAN_DESKTOP_PACKAGE_RECOMMENDS
  "iproute2, qt6-wayland, gnome-shell-extension-appindicator | plasma-workspace | lxqt-panel | xfce4-panel | mate-panel | cinnamon | budgie-core")
set(CPACK_DEBIAN_DESKTOP_PACKAGE_SUGGESTS "avahi-daemon")

tarnlink_package(development libdevel "GOOSE and Sampled Values stack (development files)
The GooseStack library (C++20) decodes, captures and publishes GOOSE messages
(IEC 61850-8-1), and captures and sends Sampled Values frames (IEC 61850-9-2).
.
This package holds its headers, its static libraries, the files with which CMake
finds it, and examples.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libboost1.81-dev, libpcap-dev, pkg-config")

include(CPack)
