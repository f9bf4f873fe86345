// The command line of tarnlink-ied.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "tools/tarnlink_ied/replay.h"
#include "tools/tarnlink_ied/sampled_values.h"

namespace tarnlink {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

struct SimulationOptions {
  bool sendsGoose = true;
  std::chrono::milliseconds interval{2000};  ///< Between state changes; 0: on demand alone.
  std::optional<std::uint32_t> svRate;       ///< Samples a second; absent: no stream.
  bool listens = false;
  std::optional<std::uint64_t> count;  ///< End after so many frames were sent.
};

struct IedOptions {
  std::string interface;
  std::variant<SimulationOptions, ReplayOptions> mode;
};

/// The program has nothing more to do: help was asked for, or the command line is wrong.
struct CommandLineEnd {
  int exitCode;
  std::string text;  ///< For standard output with kExitDone, else for standard error.
};

std::variant<IedOptions, CommandLineEnd> parseIedOptions(int argc, const char* const* argv);

}  // namespace tarnlink
