// The command line of tarnlink-ied.
#pragma once

#include <string>
#include <variant>

#include "tools/tarnlink_ied/replay.h"
#include "tools/tarnlink_ied/simulated_ied.h"

namespace tarnlink {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

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
