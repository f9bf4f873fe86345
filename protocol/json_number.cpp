#include "protocol/json_number.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <limits>
#include <system_error>

namespace tarnlink {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// The parts of a token that follows the grammar.
struct Parts {
  bool negative = false;
  std::string_view whole;
  std::string_view fraction;
  std::string_view exponent;  ///< Sign included; empty when there is none.
};

std::string_view takeDigits(std::string_view& rest) {
  std::size_t count = 0;
  while (count < rest.size() && isDigit(rest[count])) ++count;
  const std::string_view digits = rest.substr(0, count);
  rest.remove_prefix(count);
  return digits;
}

bool take(std::string_view& rest, char expected) {
  if (rest.empty() || rest.front() != expected) return false;
  rest.remove_prefix(1);
  return true;
}

std::optional<Parts> split(std::string_view rest) {
  Parts parts;
  parts.negative = take(rest, '-');
  parts.whole = takeDigits(rest);
  if (parts.whole.empty() || (parts.whole.size() > 1 && parts.whole.front() == '0')) return {};
  if (take(rest, '.')) {
    parts.fraction = takeDigits(rest);
    if (parts.fraction.empty()) return {};
  }
  if (take(rest, 'e') || take(rest, 'E')) {
    const std::string_view fromSign = rest;
    if (!take(rest, '-')) take(rest, '+');
    if (takeDigits(rest).empty()) return {};
    parts.exponent = fromSign.substr(0, fromSign.size() - rest.size());
  }
  if (!rest.empty()) return {};
  return parts;
}

// Far beyond every exponent that matters, near enough that sums with a token's length fit.
constexpr std::int64_t kExponentCap = 1'000'000'000;

std::int64_t exponentOf(std::string_view text) {
  if (text.empty()) return 0;
  const bool negative = text.front() == '-';
  if (!isDigit(text.front())) text.remove_prefix(1);
  std::int64_t magnitude = 0;
  for (const char digit : text) {
    magnitude = std::min(magnitude * 10 + (digit - '0'), kExponentCap);
  }
  return negative ? -magnitude : magnitude;
}

/// The value as significant digits times a power of ten, without zeros at either end.
class Decimal {
 public:
  explicit Decimal(const Parts& parts)
      : parts_(parts),
        scale_(exponentOf(parts.exponent) - static_cast<std::int64_t>(parts.fraction.size())) {
    end_ = parts.whole.size() + parts.fraction.size();
    while (begin_ < end_ && digit(begin_) == '0') ++begin_;
    for (; begin_ < end_ && digit(end_ - 1) == '0'; --end_) ++scale_;
  }

  bool isZero() const { return begin_ == end_; }

  /// The power of ten just above the value's magnitude.
  std::int64_t magnitude() const { return static_cast<std::int64_t>(end_ - begin_) + scale_; }

  std::optional<std::int64_t> toInteger() const {
    constexpr std::int64_t kMaxDigits = std::numeric_limits<std::int64_t>::digits10 + 1;
    if (isZero()) return 0;
    if (scale_ < 0 || magnitude() > kMaxDigits) return {};
    // Negative, because that side of the range reaches further.
    std::int64_t value = 0;
    for (std::int64_t i = 0; i < magnitude(); ++i) {
      const std::size_t at = begin_ + static_cast<std::size_t>(i);
      const int next = at < end_ ? digit(at) - '0' : 0;
      if (__builtin_mul_overflow(value, 10, &value)) return {};
      if (__builtin_sub_overflow(value, next, &value)) return {};
    }
    if (parts_.negative) return value;
    if (value == std::numeric_limits<std::int64_t>::min()) return {};
    return -value;
  }

 private:
  char digit(std::size_t at) const {
    return at < parts_.whole.size() ? parts_.whole[at] : parts_.fraction[at - parts_.whole.size()];
  }

  const Parts& parts_;
  std::int64_t scale_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

std::optional<double> toReal(std::string_view token, const Parts& parts, const Decimal& decimal) {
  double value = 0;
  const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), value);
  if (error == std::errc() && value <= std::numeric_limits<double>::max() &&
      value >= std::numeric_limits<double>::lowest()) {
    return value;
  }
  // Libraries differ in how they report both ends of the range; only the upper end is a loss.
  if (decimal.isZero() || decimal.magnitude() < 0) return parts.negative ? -0.0 : 0.0;
  return {};
}

// Every integer of that many digits converts exactly to 64 bits and, correctly rounded, to double.
constexpr std::size_t kShortDigits = 18;

std::optional<JsonNumber> parseShortInteger(std::string_view token) {
  if (token.empty() || token.size() > kShortDigits) return {};
  if (token.front() == '0' && token.size() > 1) return {};
  std::int64_t value = 0;
  for (const char c : token) {
    if (!isDigit(c)) return {};
    value = value * 10 + (c - '0');
  }
  return JsonNumber{value, static_cast<double>(value)};
}

}  // namespace

std::optional<JsonNumber> parseJsonNumber(std::string_view token) {
  if (auto number = parseShortInteger(token)) return number;
  const auto parts = split(token);
  if (!parts) return {};
  const Decimal decimal(*parts);
  return JsonNumber{decimal.toInteger(), toReal(token, *parts, decimal)};
}

}  // namespace tarnlink
