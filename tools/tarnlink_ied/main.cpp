// tarnlink-ied: a simulated IED, or a recorded one.
#include <iostream>

#include "stack/interface_discovery.h"
#include "tools/tarnlink_ied/options.h"
#include "tools/tarnlink_ied/replay.h"
#include "tools/tarnlink_ied/simulated_ied.h"

namespace {

using namespace tarnlink;

// Locally administered; for interfaces without an address of their own.
constexpr MacAddress kFallbackSource = {0x02, 0x54, 0x4C, 0x00, 0x00, 0x01};

IedResult<void> send(const IedOptions& options, FrameSink& sink, Pacer& pacer, SendReport& report) {
  if (const auto* recording = std::get_if<ReplayOptions>(&options.mode)) {
    std::cout << "Replaying " << recording->path << " on " << options.interface << std::endl;
    return replay(*recording, sink, pacer, report);
  }
  const auto& simulation = std::get<SimulationOptions>(options.mode);
  const auto source =
      InterfaceDiscovery::macAddressBytes(options.interface).value_or(kFallbackSource);
  auto blocks = feederBay(source, simulation.interval);
  std::cout << "Sending " << blocks.size() << " GOOSE control blocks on "
            << options.interface << " every " << simulation.interval.count() << " ms" << std::endl;
  return simulate(std::move(blocks), simulation, sink, pacer, report);
}

int fail(const IedError& error) {
  std::cerr << "tarnlink-ied: " << error.text << std::endl;
  return kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = parseIedOptions(argc, argv);
  if (const auto* end = std::get_if<CommandLineEnd>(&parsed)) {
    (end->exitCode == kExitDone ? std::cout : std::cerr) << end->text << std::flush;
    return end->exitCode;
  }
  const auto& options = std::get<IedOptions>(parsed);
  SignalPacer pacer;
  auto sink = InterfaceSink::open(options.interface);
  if (!sink) return fail(sink.error());
  SendReport report;
  const auto result = send(options, *sink, pacer, report);
  std::cout << report.text() << std::endl;
  return result ? kExitDone : fail(result.error());
}
