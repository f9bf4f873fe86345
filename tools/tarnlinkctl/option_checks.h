// Checks that several subcommands share, as CLI11 calls them: the text is what is wrong, empty when
// nothing is.
#pragma once

#include <string>

namespace tarnlink {

/// As parseAppId() reads it.
std::string checkAppId(const std::string& text);

/// A pairing code: six digits. Another text would only cost an attempt.
std::string checkCode(const std::string& text);

/// A whole number above 0; CLI11 takes "-1" for the largest unsigned one.
std::string checkCount(const std::string& text);

/// As the bridge reads MAC addresses. It would take its default for others.
std::string checkMac(const std::string& text);

}  // namespace tarnlink
