#include "protocol/bridge_time.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>

namespace tarnlink {
namespace {

constexpr std::int64_t kFirstSecond = -62'135'596'800;  // 0001-01-01T00:00:00Z
constexpr std::int64_t kEndSecond = 253'402'300'800;    // 10000-01-01T00:00:00Z
constexpr std::uint32_t kSecondsPerDay = 86'400;
constexpr std::chrono::sys_days kFirstDay = std::chrono::year(1) / 1 / 1;

/// A time that has a text.
struct WrittenTime {
  std::uint64_t seconds;  ///< Since the first one that has a text, so that nothing is negative.
  unsigned milliseconds;
};

// Without rounding functions, which are library calls where the processor's baseline has no
// instruction for them.
WrittenTime nearestWritten(goosestack::TimePoint time) {
  constexpr std::uint64_t kLast = kEndSecond - kFirstSecond - 1;
  const double seconds = goosestack::unixSeconds(time);
  if (!(seconds > static_cast<double>(kFirstSecond))) return {0, 0};
  if (seconds >= static_cast<double>(kEndSecond)) return {kLast, 999};
  auto whole = static_cast<std::int64_t>(seconds);
  if (static_cast<double>(whole) > seconds) --whole;
  // Only the fraction is scaled: it is exact, the product of the whole is not.
  const double scaled = (seconds - static_cast<double>(whole)) * 1000;
  auto milliseconds = static_cast<unsigned>(scaled);
  if (scaled - milliseconds >= 0.5) ++milliseconds;
  const auto since = static_cast<std::uint64_t>(whole - kFirstSecond);
  if (milliseconds < 1000) return {since, milliseconds};
  return since == kLast ? WrittenTime{kLast, 999} : WrittenTime{since + 1, 0};
}

constexpr auto kTwoDigits = [] {
  std::array<std::array<char, 2>, 100> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    pairs[i] = {static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
  }
  return pairs;
}();

void writeTwoDigits(unsigned value, char* out) {
  std::memcpy(out, kTwoDigits[value].data(), 2);
}

/// The form of every time text, its digits as zeros.
constexpr std::string_view kForm = "0000-00-00T00:00:00.000Z";
constexpr std::string_view kFormNoFraction = "0000-00-00T00:00:00Z";
constexpr std::size_t kFraction = 20;

bool hasForm(std::string_view text, std::string_view form) {
  return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char c, char expected) {
    return expected == '0' ? c >= '0' && c <= '9' : c == expected;
  });
}

}  // namespace

char* writeIso8601(goosestack::TimePoint time, char* out) {
  const auto [seconds, milliseconds] = nearestWritten(time);
  const auto day = static_cast<std::uint32_t>(seconds / kSecondsPerDay);
  const auto second = static_cast<std::uint32_t>(seconds % kSecondsPerDay);
  const std::chrono::year_month_day date(kFirstDay + std::chrono::days(day));
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  const unsigned minute = second / 60;

  std::memcpy(out, kForm.data(), kIso8601Length);
  writeTwoDigits(year / 100, out);
  writeTwoDigits(year % 100, out + 2);
  writeTwoDigits(static_cast<unsigned>(date.month()), out + 5);
  writeTwoDigits(static_cast<unsigned>(date.day()), out + 8);
  writeTwoDigits(minute / 60, out + 11);
  writeTwoDigits(minute % 60, out + 14);
  writeTwoDigits(second % 60, out + 17);
  writeTwoDigits(milliseconds / 10, out + 20);
  out[22] = static_cast<char>('0' + milliseconds % 10);
  return out + kIso8601Length;
}

std::string BridgeIso8601Formatter::string(goosestack::TimePoint time) const {
  std::string text(kIso8601Length, ' ');
  writeIso8601(time, text.data());
  if (!withFraction) text.replace(text.find('.'), std::string::npos, "Z");
  return text;
}

std::optional<goosestack::TimePoint> BridgeIso8601Formatter::date(std::string_view text) const {
  if (!hasForm(text, withFraction ? kForm : kFormNoFraction)) return {};
  const auto number = [text](std::size_t at, std::size_t digits) {
    unsigned value = 0;
    std::from_chars(text.data() + at, text.data() + at + digits, value);
    return value;
  };
  const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(number(0, 4))),
                                         std::chrono::month(number(5, 2)),
                                         std::chrono::day(number(8, 2)));
  const unsigned hour = number(11, 2);
  const unsigned minute = number(14, 2);
  const unsigned second = number(17, 2);
  if (!date.ok() || date.year() < std::chrono::year(1) || hour > 23 || minute > 59 || second > 59)
    return {};

  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t seconds = days * kSecondsPerDay + hour * 3600 + minute * 60 + second;
  const unsigned millisecond = withFraction ? number(kFraction, 3) : 0;
  return goosestack::timeFromUnixSeconds(static_cast<double>(seconds) + millisecond / 1000.0);
}

std::optional<goosestack::TimePoint> parseBridgeIso8601(std::string_view text) {
  if (const auto time = bridgeIso8601Formatter.date(text)) return time;
  return bridgeIso8601FormatterNoFraction.date(text);
}

}  // namespace tarnlink
