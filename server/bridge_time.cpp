#include "server/bridge_time.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace tarnlink {
namespace {

constexpr std::int64_t kMillisecondsPerDay = 86'400'000;
constexpr std::int64_t kFirstMillisecond = -62'135'596'800'000;  // 0001-01-01T00:00:00.000Z
constexpr std::int64_t kLastMillisecond = 253'402'300'799'999;   // 9999-12-31T23:59:59.999Z

std::int64_t toMilliseconds(TimePoint time) {
  const double seconds = unixSeconds(time);
  if (!(seconds > static_cast<double>(kFirstMillisecond) / 1000)) return kFirstMillisecond;
  if (seconds >= static_cast<double>(kLastMillisecond) / 1000) return kLastMillisecond;
  // Only the fraction is scaled: it is exact, the product of the whole is not.
  const double whole = std::floor(seconds);
  return static_cast<std::int64_t>(whole) * 1000 + std::llround((seconds - whole) * 1000);
}

char* writeTwoDigits(unsigned value, char* out) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
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

char* writeIso8601(TimePoint time, char* out) {
  const std::int64_t milliseconds = toMilliseconds(time);
  std::int64_t days = milliseconds / kMillisecondsPerDay;
  if (milliseconds % kMillisecondsPerDay < 0) --days;
  auto rest = static_cast<unsigned>(milliseconds - days * kMillisecondsPerDay);
  const std::chrono::year_month_day date{
      std::chrono::sys_days(std::chrono::days(static_cast<int>(days)))};

  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  out = writeTwoDigits(year / 100, out);
  out = writeTwoDigits(year % 100, out);
  *out++ = '-';
  out = writeTwoDigits(static_cast<unsigned>(date.month()), out);
  *out++ = '-';
  out = writeTwoDigits(static_cast<unsigned>(date.day()), out);
  *out++ = 'T';
  out = writeTwoDigits(rest / 3'600'000, out);
  *out++ = ':';
  out = writeTwoDigits(rest / 60'000 % 60, out);
  *out++ = ':';
  out = writeTwoDigits(rest / 1000 % 60, out);
  *out++ = '.';
  rest %= 1000;
  *out++ = static_cast<char>('0' + rest / 100);
  out = writeTwoDigits(rest % 100, out);
  *out++ = 'Z';
  return out;
}

std::string BridgeIso8601Formatter::string(TimePoint time) const {
  std::string text(kIso8601Length, ' ');
  writeIso8601(time, text.data());
  if (!withFraction) text.replace(text.find('.'), std::string::npos, "Z");
  return text;
}

std::optional<TimePoint> BridgeIso8601Formatter::date(std::string_view text) const {
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
  return timeFromUnixSeconds(static_cast<double>(seconds) + millisecond / 1000.0);
}

std::optional<TimePoint> parseBridgeIso8601(std::string_view text) {
  if (const auto time = bridgeIso8601Formatter.date(text)) return time;
  return bridgeIso8601FormatterNoFraction.date(text);
}

}  // namespace tarnlink
