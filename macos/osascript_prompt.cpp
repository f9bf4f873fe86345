#include "macos/osascript_prompt.h"

#include <algorithm>

namespace tarnlink {
namespace {

std::vector<std::string> argumentsFor(const std::string& commandLine) {
  std::string literal;  // The inside of an AppleScript string.
  for (const char c : commandLine) {
    if (c == '\\' || c == '"') literal += '\\';
    literal += c;
  }
  return {"/usr/bin/osascript", "-e",
          "do shell script \"" + literal + "\" with administrator privileges"};
}

// The tool tells a dismissed prompt by text alone.
std::optional<AdminError> refusal(const boost::system::result<ProcessOutcome>& outcome,
                                  const std::string&) {
  if (!outcome) return {};
  std::string lower = outcome->err;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (lower.find("-128") != std::string::npos || lower.find("canceled") != std::string::npos) {
    return cancelledByUser();
  }
  return {};
}

}  // namespace

const AdminPrompt kOsascriptPrompt{true, argumentsFor, refusal};

}  // namespace tarnlink
