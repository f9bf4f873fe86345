// What people can do about an error: lines to put behind its text. Empty where there is nothing to
// say; otherwise each begins with a line feed and two spaces.
#pragma once

#include <boost/system/error_code.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink {

/// After no connection came about.
std::string adviceOnConnecting(const boost::system::error_code& error);

/// After the bridge answered with this error text.
std::string adviceOnRefusal(std::string_view text);

/// The word of the list that was probably meant: one that differs by two letters at most, or that
/// begins so. Nothing when there is none.
std::string nearestWord(std::string_view word, const std::vector<std::string>& words);

}  // namespace tarnlink
