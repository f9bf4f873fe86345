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
  CLI::App app("Sends GOOSE frames like a protection device, or replays a capture.",
               "tarnlink-ied");
  std::string interface;
  int interval = 500;
  std::uint64_t count = 0;
  ReplayOptions recording;
  app.add_option("--interface", interface, "Ethernet interface to send on")
      ->required()
      ->type_name("NAME");
  auto* intervalOption =
      app.add_option("--interval", interval, "Milliseconds between frames of a control block")
          ->check(CLI::Range(1, kMaxInterval))
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
  app.footer(
      "Sending needs root or CAP_NET_RAW. SIGINT and SIGTERM end the program.\n"
      "Exit codes: 0 done or asked to end, 1 failed, 2 bad usage.");
  try {
    app.parse(argc, argv);
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
  return IedOptions{interface, SimulationOptions{std::chrono::milliseconds(interval), limit}};
}

}  // namespace tarnlink
