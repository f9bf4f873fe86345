// JSON numbers (RFC 8259, section 6) classified by what they can be read as.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarnlink {

/// A number that neither fits counts as missing wherever one is expected.
struct JsonNumber {
  /// Present when the value is integral and fits: 100, 100.0 and 1e2 alike.
  std::optional<std::int64_t> integer;
  /// Correctly rounded; absent when the value is beyond the largest double.
  std::optional<double> real;

  bool operator==(const JsonNumber&) const = default;
};

/// Nothing when the token is no JSON number as a whole.
std::optional<JsonNumber> parseJsonNumber(std::string_view token);

}  // namespace tarnlink
