#include "tools/tarnlink_ied/options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <sstream>

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

std::string checkCount(const std::string& text) {
  // CLI11 takes "-1" for the largest unsigned number.
  const bool isGood =
      text.find_first_not_of("0123456789") == text.npos && text.find_first_not_of('0') != text.npos;
  return isGood ? "" : "must be a whole number above 0: " + text;
}

}  // namespace

std::variant<IedOptions, CommandLineEnd> parseIedOptions(int argc, const char* const* argv) {
  CLI::App app(
      "Sends GOOSE frames like a protection device, and Sampled Values, or replays a capture.",
      "tarnlink-ied");
  std::string interface;
  SimulationOptions simulation;
  auto interval = simulation.interval.count();
  std::uint64_t count = 0;
  ReplayOptions recording;
  app.add_option("--interface", interface, "Ethernet interface to send on")
      ->required()
      ->type_name("NAME");
  auto* intervalOption = app.add_option("--interval", interval,
                                        "Milliseconds between state changes; 0: only on demand")
                             ->check(CLI::Range(0, kMaxInterval))
                             ->type_name("MS")
                             ->capture_default_str();
  auto* countOption = app.add_option("--count", count, "End after so many frames were sent")
                          ->check(checkCount)
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
  std::uint32_t svRate = SvStreamConfig::kNominalRate;
  bool sendsSv = false;
  bool sendsNoGoose = false;
  auto* svOption = app.add_flag("--sv", sendsSv, "Also send Sampled Values as of IEC 61850-9-2LE")
                       ->excludes(replayOption);
  app.add_option("--sv-rate", svRate, "Samples a second, one a frame")
      ->check(CLI::Range(1, static_cast<int>(SvStreamConfig::kMaxRate)))
      ->type_name("N")
      ->capture_default_str()
      ->needs(svOption);
  app.add_flag("--listen", simulation.listens, "Print the GOOSE messages that others send")
      ->excludes(replayOption);
  app.add_flag("--no-goose", sendsNoGoose, "Send no GOOSE messages: with --sv or --listen")
      ->excludes(replayOption)
      ->excludes(intervalOption);
  app.footer(
      "The control blocks of a feeder bay take turns in changing their states; each change is "
      "sent\n"
      "with the standard's transmission pattern. The line 'trip' on standard input changes the\n"
      "breaker's state at once; 'change', or SIGUSR1, that of whichever control block is next.\n"
      "Sending needs root or CAP_NET_RAW. SIGINT and SIGTERM end the program.\n"
      "Exit codes: 0 done or asked to end, 1 failed, 2 bad usage.");
  try {
    app.parse(argc, argv);
    if (sendsNoGoose && !sendsSv && !simulation.listens) {
      throw CLI::RequiresError("--no-goose", "--sv or --listen");
    }
  } catch (const CLI::ParseError& end) {
    std::ostringstream out;
    std::ostringstream errors;
    const bool isHelp = app.exit(end, out, errors) == 0;
    return CommandLineEnd{isHelp ? kExitDone : kExitUsage, isHelp ? out.str() : errors.str()};
  }
  const auto limit = *countOption ? std::optional(count) : std::nullopt;
  if (*replayOption) {
    recording.count = limit;
    return IedOptions{interface, recording};
  }
  simulation.sendsGoose = !sendsNoGoose;
  simulation.interval = std::chrono::milliseconds(interval);
  if (sendsSv) simulation.svRate = svRate;
  simulation.count = limit;
  return IedOptions{interface, simulation};
}

}  // namespace tarnlink
