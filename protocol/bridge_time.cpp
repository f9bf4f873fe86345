#include "protocol/bridge_time.h"

#include <array>
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

/// Reads the digits and separators of one text from left to right.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  unsigned digits(std::size_t count) {
    unsigned value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const char c = next();
      if (c < '0' || c > '9') good_ = false;
      value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
  }
  void expect(char separator) {
    if (next() != separator) good_ = false;
  }
  bool atGoodEnd() const { return good_ && rest_.empty(); }

 private:
  char next() {
    if (rest_.empty()) {
      good_ = false;
      return '0';
    }
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  std::string_view rest_;
  bool good_ = true;
};

}  // namespace

char* writeIso8601(goosestack::TimePoint time, char* out) {
  const auto [seconds, milliseconds] = nearestWritten(time);
  const auto day = static_cast<std::uint32_t>(seconds / kSecondsPerDay);
  const auto second = static_cast<std::uint32_t>(seconds % kSecondsPerDay);
  const std::chrono::year_month_day date(kFirstDay + std::chrono::days(day));
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  const unsigned minute = second / 60;

  std::memcpy(out, "0000-00-00T00:00:00.000Z", kIso8601Length);
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
  Scanner scan(text);
  const std::chrono::year year(static_cast<int>(scan.digits(4)));
  scan.expect('-');
  const std::chrono::month month(scan.digits(2));
  scan.expect('-');
  const std::chrono::day day(scan.digits(2));
  scan.expect('T');
  const unsigned hour = scan.digits(2);
  scan.expect(':');
  const unsigned minute = scan.digits(2);
  scan.expect(':');
  const unsigned second = scan.digits(2);
  unsigned millisecond = 0;
  if (withFraction) {
    scan.expect('.');
    millisecond = scan.digits(3);
  }
  scan.expect('Z');
  const std::chrono::year_month_day date(year, month, day);
  if (!scan.atGoodEnd() || !date.ok() || static_cast<int>(year) < 1) return {};
  if (hour > 23 || minute > 59 || second > 59) return {};

  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t seconds = days * 86'400 + hour * 3600 + minute * 60 + second;
  return goosestack::timeFromUnixSeconds(static_cast<double>(seconds) + millisecond / 1000.0);
}

std::optional<goosestack::TimePoint> parseBridgeIso8601(std::string_view text) {
  if (const auto time = bridgeIso8601Formatter.date(text)) return time;
  return bridgeIso8601FormatterNoFraction.date(text);
}

}  // namespace tarnlink
