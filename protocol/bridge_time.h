// Time text of the protocol: the ISO 8601 internet date-time form (RFC 3339) in UTC.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "goosestack/time_point.h"

namespace tarnlink {

/// Characters of a time text with milliseconds.
inline constexpr std::size_t kIso8601Length = 24;

/// Writes kIso8601Length characters such as 2024-05-17T08:15:30.125Z, milliseconds rounded to
/// nearest; returns the position behind them. Times before the year 1, and NaN, are written as
/// kDistantPast; times after the year 9999 as its last millisecond.
char* writeIso8601(goosestack::TimePoint time, char* out);

/// One form of time text. Stateless: safe from any thread.
struct BridgeIso8601Formatter {
  bool withFraction;  ///< Exactly three digits, or none.

  /// As writeIso8601(); without fraction the milliseconds are left out.
  std::string string(goosestack::TimePoint time) const;
  /// Reads exactly the form that string() writes; nothing for any other text.
  std::optional<goosestack::TimePoint> date(std::string_view text) const;
};

inline constexpr BridgeIso8601Formatter bridgeIso8601Formatter{true};
inline constexpr BridgeIso8601Formatter bridgeIso8601FormatterNoFraction{false};

/// Either form.
std::optional<goosestack::TimePoint> parseBridgeIso8601(std::string_view text);

}  // namespace tarnlink
