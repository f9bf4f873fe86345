#include "tools/tarnlink_ied/options.h"

#include <CLI/CLI.hpp>
#include <cstdint>

namespace tarnlink {
namespace {

constexpr int kMaxInterval = 60'000;  // Milliseconds.
constexpr double kMaxSpeed = 1e6;
// Slower, and the due times of a long recording would leave the clock's range.
constexpr double kMinSpeed = 1e-3;

std::string checkSpeed(const std::string& text) {
  double speed = -1;
  if (!CLI::detail::lexical_cast(text, speed)) return "is not a number: " + text;
  const bool isGood = speed == 0 || (speed >= kMinSpeed && speed <= kMaxSpeed);
  return isGood ? "" : "must be 0 or between 0.001 and 1000000: " + text;
}

}  // namespace

std::variant<IedOptions, CommandLineEnd> parseIedOptions(int argc, const char* const* argv) {
  CLI::App app(
      "Sends GOOSE frames like a protection device, and Sampled Values, or replays a capture.",
      "tarnlink-ied");
  std::string interface;
  SimulationOptions simulation;
  ReplayOptions recording;
  app.add_option("--interface", interface, "Ethernet interface to send on")
      ->required()
      ->type_name("NAME");
  auto* intervalOption = app.add_option("--interval", simulation.interval,
                                        "Milliseconds between state changes; 0: only on demand")
                             ->check(CLI::Range(0, kMaxInterval))
                             ->type_name("MS")
                             ->capture_default_str();
  app.add_option("--count", simulation.count, "End after so many frames were sent")
      ->check(countAboveZero())
      ->type_name("N");
  auto* replayOption = app.add_option("--replay", recording.path,
                                      "Play this capture (pcap or pcapng) as it was recorded")
                           ->type_name("FILE")
                           ->excludes(intervalOption);
  app.add_option("--speed", recording.speed, "Replay so many times faster; 0: as fast as possible")
      ->check(checkSpeed)
      ->type_name("FACTOR")
      ->capture_default_str()
      ->needs(replayOption);
  app.add_flag("--loop", recording.loop, "Replay again and again")->needs(replayOption);
  auto* svOption =
      app.add_flag("--sv", simulation.sendsSv, "Also send Sampled Values as of IEC 61850-9-2LE")
          ->excludes(replayOption);
  app.add_option("--sv-rate", simulation.svRate, "Samples a second, one a frame")
      ->check(CLI::Range(1, static_cast<int>(SvStreamConfig::kMaxRate)))
      ->type_name("N")
      ->capture_default_str()
      ->needs(svOption);
  app.add_flag("--listen", simulation.listens, "Print the GOOSE messages that others send")
      ->excludes(replayOption);
  app.add_flag_callback(
         "--no-goose", [&simulation] { simulation.sendsGoose = false; },
         "Send no GOOSE messages: with --sv or --listen")
      ->excludes(replayOption)
      ->excludes(intervalOption);
  app.footer(
      "The control blocks of a feeder bay take turns in changing their states; each change is "
      "sent\n"
      "with the standard's transmission pattern. The line 'trip' on standard input changes the\n"
      "breaker's state at once; 'change', or SIGUSR1, that of whichever control block is next.\n"
      "Sending needs root or CAP_NET_RAW. SIGINT and SIGTERM end the program.\n"
      "Exit codes: 0 done or asked to end, 1 failed, 2 bad usage.");
  app.callback([&simulation] {
    if (!simulation.sendsGoose && !simulation.sendsSv && !simulation.listens) {
      throw CLI::RequiresError("--no-goose", "--sv or --listen");
    }
  });
  if (const auto end = parseCommandLine(app, argc, argv)) return *end;
  if (!*replayOption) return IedOptions{interface, simulation};
  recording.count = simulation.count;
  return IedOptions{interface, recording};
}

}  // namespace tarnlink
