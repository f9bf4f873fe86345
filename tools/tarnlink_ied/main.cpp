// tarnlink-ied: a simulated IED, or a recorded one.
#include <iostream>

#include "tools/tarnlink_ied/options.h"
#include "tools/tarnlink_ied/replay.h"
#include "tools/tarnlink_ied/simulated_ied.h"

namespace {

using namespace tarnlink;

IedResult<void> play(const std::string& interface, const ReplayOptions& recording) {
  OperatorCues cues(false);
  auto sink = InterfaceSink::open(interface);
  if (!sink) return sink.error();
  std::cout << "Replaying " << recording.path << " on " << interface << std::endl;
  SendReport report;
  auto result = replay(recording, *sink, cues, report);
  std::cout << report.text() << std::endl;
  return result;
}

IedResult<void> play(const std::string& interface, const SimulationOptions& options) {
  OperatorCues cues(true);
  return simulateIed(interface, options, cues, std::cout);
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = parseIedOptions(argc, argv);
  if (const auto* end = std::get_if<CommandLineEnd>(&parsed)) return end->show();
  const auto& options = std::get<IedOptions>(parsed);
  const auto result = std::visit(
      [&options](const auto& mode) { return play(options.interface, mode); }, options.mode);
  if (result) return kExitDone;
  std::cerr << "tarnlink-ied: " << result.error().text << std::endl;
  return kExitFailed;
}
