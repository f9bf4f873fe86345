#include "tools/common/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <limits>
#include <sstream>

namespace tarnlink {

int CommandLineEnd::show() const {
  (exitCode == kExitDone ? std::cout : std::cerr) << text << std::flush;
  return exitCode;
}

std::optional<CommandLineEnd> parseCommandLine(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
    return {};
  } catch (const CLI::ParseError& end) {
    std::ostringstream out;
    std::ostringstream errors;
    const bool isHelp = app.exit(end, out, errors) == 0;
    return CommandLineEnd{isHelp ? kExitDone : kExitUsage, isHelp ? out.str() : errors.str()};
  }
}

CLI::Validator countAboveZero() {
  return CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()).description("");
}

std::string framesText(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

}  // namespace tarnlink
