// The command line of tarnlink-ied.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "tools/common/command_line.h"
#include "tools/tarnlink_ied/replay.h"
#include "tools/tarnlink_ied/sampled_values.h"

namespace tarnlink {

struct SimulationOptions {
  bool sendsGoose = true;
  std::int64_t interval = 2000;  ///< Milliseconds between state changes; 0: on demand alone.
  bool sendsSv = false;
  std::uint32_t svRate = SvStreamConfig::kNominalRate;  ///< Samples a second.
  bool listens = false;
  std::optional<std::uint64_t> count;  ///< End after so many frames were sent.
};

struct IedOptions {
  std::string interface;
  std::variant<SimulationOptions, ReplayOptions> mode;
};

std::variant<IedOptions, CommandLineEnd> parseIedOptions(int argc, const char* const* argv);

}  // namespace tarnlink
