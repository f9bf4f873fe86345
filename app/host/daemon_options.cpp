#include "app/host/daemon_options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "platform/preference_store.h"
#include "server/bridge_event_encoder.h"

namespace tarnlink {
namespace {

constexpr const char* kFooter =
    "Exit codes: 0 after an orderly stop, 1 when the bridge cannot start, 2 for bad usage.\n"
    "Needs CAP_NET_RAW for capturing and sending; gives up every other privilege but\n"
    "CAP_NET_ADMIN, which VLAN set-up uses where it is given.";

}  // namespace

std::variant<DaemonOptions, ExitCode> parseDaemonOptions(int argc, const char* const* argv) {
  DaemonOptions options;
  options.preferences = defaultPreferenceFile();

  CLI::App app("tarnlinkd - bridge between IEC 61850 layer-2 traffic and WebSocket clients");
  app.footer(kFooter);
  app.set_version_flag("--version", "tarnlinkd " + std::string(BridgeEventEncoder::appVersion()));
  app.add_option("--port", options.port, "TCP port of the WebSocket server")
      ->check(CLI::Range(0, int{std::numeric_limits<std::uint16_t>::max()}))
      ->capture_default_str();
  app.add_option("--interface", options.interface,
                 "Interface for capture and publishing in this run; not stored");
  app.add_option("--preferences", options.preferences, "File of the preferences")
      ->capture_default_str();
  app.add_flag("!--no-advertise", options.advertise, "Do not announce the bridge by DNS-SD");
  app.add_flag("--low-latency", options.lowLatency,
               "Take each frame from the kernel at once instead of within 100 ms");
  app.add_flag("--show-pairing-code", options.showPairingCode,
               "Print the pairing code, making one when there is none, and exit");
  app.add_flag("--until-input-ends", options.untilInputEnds,
               "Stop when standard input ends, and so with the program that started this one");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ExitCode{app.exit(error) == 0 ? 0 : kExitUsage};
  }
  return options;
}

}  // namespace tarnlink
