#include "tools/common/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <limits>
#include <sstream>

namespace tarnlink {
namespace {

std::string checkLeadingZero(const std::string& text) {
  const bool isOctal = text.size() > 1 && text[0] == '0' && text[1] >= '0' && text[1] <= '9';
  return isOctal ? "must be decimal without leading zeros, or begin with 0x: " + text : "";
}

}  // namespace

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

CLI::Validator wholeNumber(std::int64_t least, std::int64_t most) {
  const CLI::Validator range = CLI::Range(least, most);
  return (CLI::Validator(checkLeadingZero, "") & range).description(range.get_description());
}

CLI::Validator countAboveZero() {
  return wholeNumber(1, std::numeric_limits<std::int64_t>::max()).description("");
}

std::string framesText(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

}  // namespace tarnlink
