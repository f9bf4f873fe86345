#pragma once

#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "tools/tarnlinkctl/options.h"

namespace tarnlink::test {

/// A command line of tarnlinkctl, its words separated by blanks alone.
inline std::variant<CtlOptions, CommandLineEnd> parseCtlLine(const std::string& line) {
  std::istringstream input("tarnlinkctl " + line);
  std::vector<std::string> words;
  for (std::string word; input >> word;) words.push_back(word);
  std::vector<const char*> arguments;
  for (const auto& word : words) arguments.push_back(word.c_str());
  return parseCtlOptions(static_cast<int>(arguments.size()), arguments.data());
}

}  // namespace tarnlink::test
