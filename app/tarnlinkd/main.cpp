// tarnlinkd: the bridge without a display.
#include <variant>

#include "app/host/bridge_process.h"
#include "app/host/daemon_options.h"

int main(int argc, char** argv) {
  const auto parsed = tarnlink::parseDaemonOptions(argc, argv);
  if (const auto* exit = std::get_if<tarnlink::ExitCode>(&parsed)) return exit->value;
  return tarnlink::runBridgeProcess(std::get<tarnlink::DaemonOptions>(parsed));
}
