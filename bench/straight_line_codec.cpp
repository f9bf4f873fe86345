#include "bench/straight_line_codec.h"

#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>

#include "stack/goose_pdu_tags.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

using Element = StraightLineGoose::Element;

constexpr std::size_t kHeaders = 22;  // Octets of the Ethernet and the GOOSE header.
std::uint32_t bigEndian(const std::uint8_t* octets, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | octets[i];
  return value;
}
std::uint32_t number(const Element& element) {
  return bigEndian(element.content, element.length);
}
std::int32_t signedNumber(const Element& element) {
  const auto sign = (element.content[0] & 0x80) != 0 ? ~std::uint32_t{0} : 0;
  const auto value = number(element);
  return static_cast<std::int32_t>(element.length < 4 ? sign << 8 * element.length | value : value);
}

// Pieces of the text, each of which put() writes in its own way.
struct Mac {
  const std::uint8_t* octets;
};
struct TwoDigits {
  unsigned value;
};
struct Time {
  std::uint32_t seconds;
  unsigned milliseconds;
};
Time timeOf(const Element& element) {
  const std::uint64_t fraction = bigEndian(element.content + 4, 3);
  return {bigEndian(element.content, 4), static_cast<unsigned>(fraction * 1000 >> 24)};
}

template <std::size_t N>
char* put(char* out, const char (&literal)[N]) {
  std::memcpy(out, literal, N - 1);
  return out + N - 1;
}
char* put(char* out, char character) {
  *out = character;
  return out + 1;
}
char* put(char* out, bool value) {
  return value ? put(out, "true") : put(out, "false");
}
template <class Number>
char* put(char* out, Number value) {
  return std::to_chars(out, out + 32, value).ptr;
}
char* put(char* out, TwoDigits digits) {
  out[0] = static_cast<char>('0' + digits.value / 10);
  out[1] = static_cast<char>('0' + digits.value % 10);
  return out + 2;
}
char* put(char* out, const Element& text) {
  *out++ = '"';
  std::memcpy(out, text.content, text.length);
  return put(out + text.length, '"');
}
char* put(char* out, Mac mac) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = '"';
  for (int i = 0; i < 6; ++i) {
    *out++ = kDigits[mac.octets[i] >> 4];
    *out++ = kDigits[mac.octets[i] & 0x0F];
    *out++ = ':';
  }
  out[-1] = '"';
  return out;
}

template <class... Pieces>
char* putAll(char* out, const Pieces&... pieces) {
  ((out = put(out, pieces)), ...);
  return out;
}

char* put(char* out, Time time) {
  const std::chrono::sys_days day(std::chrono::days(time.seconds / 86'400));
  const std::chrono::year_month_day date(day);
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  const unsigned rest = time.seconds % 86'400;
  return putAll(out, '"', TwoDigits{year / 100}, TwoDigits{year % 100}, '-',
                TwoDigits{static_cast<unsigned>(date.month())}, '-',
                TwoDigits{static_cast<unsigned>(date.day())}, 'T', TwoDigits{rest / 3600}, ':',
                TwoDigits{rest / 60 % 60}, ':', TwoDigits{rest % 60}, '.',
                static_cast<char>('0' + time.milliseconds / 100),
                TwoDigits{time.milliseconds % 100}, "Z\"");
}

char* putBits(char* out, const Element& value) {
  const std::size_t count = (value.length - 1U) * 8 - value.content[0];
  for (std::size_t i = 0; i < count; ++i) {
    out = putAll(out, (value.content[1 + i / 8] & 0x80 >> i % 8) != 0, ',');
  }
  return out - (count != 0 ? 1 : 0);
}

char* putValue(char* out, const Element& value) {
  switch (value.tag) {
    case kTagBoolean:
      return putAll(out, R"({"runtimeType":"boolean","value":)", value.content[0] != 0, '}');
    case kTagBitString:
      return put(putBits(put(out, R"({"runtimeType":"bitString","bits":[)"), value), "]}");
    case kTagInteger:
      return putAll(out, R"({"runtimeType":"int32","value":)", signedNumber(value), '}');
    case kTagUnsigned:
      return putAll(out, R"({"runtimeType":"uint32","value":)", number(value), '}');
    case kTagFloatingPoint:
      return putAll(out, R"({"runtimeType":"float32","value":)",
                    double{std::bit_cast<float>(bigEndian(value.content + 1, 4))}, '}');
    case kTagVisibleString:
      return putAll(out, R"({"runtimeType":"visibleString","value":)", value, '}');
    default:
      return putAll(out, R"({"runtimeType":"utcTime","value":)", timeOf(value), '}');
  }
}

}  // namespace

bool decodeGoose(ByteView frame, StraightLineGoose& goose) {
  if (frame.size() < kHeaders || frame.size() > goose.frame.size()) return false;
  std::memcpy(goose.frame.data(), frame.data(), frame.size());
  const std::uint8_t* at = goose.frame.data() + kHeaders;
  const std::uint8_t* end = goose.frame.data() + frame.size();
  goose.count = 0;
  while (at < end && goose.count < goose.elements.size()) {
    if (at[0] == kTagGoosePdu || at[0] == kTagAllData) {
      at += at[1] < 0x80 ? 2 : 2 + (at[1] & 0x7F);  // In it.
    } else {
      goose.elements[goose.count++] = {at[0], at[1], at + 2};
      at += 2 + at[1];
    }
  }
  return at == end && goose.count >= kFieldCount;
}

char* writeGooseEvent(const StraightLineGoose& goose, double receivedAt, char* out) {
  const auto& fields = goose.elements;
  out = putAll(out, R"({"event":"goose_message","message":{"appId":)",
               bigEndian(goose.frame.data() + 14, 2), R"(,"goCBRef":)", fields[kGocbRef],
               R"(,"dataSet":)", fields[kDatSet], R"(,"timestamp":)", timeOf(fields[kTime]),
               R"(,"stNum":)", number(fields[kStNum]), R"(,"sqNum":)", number(fields[kSqNum]),
               R"(,"test":)", fields[kSimulation].content[0] != 0, R"(,"needsCommission":)",
               fields[kNdsCom].content[0] != 0, R"(,"confRev":)", number(fields[kConfRev]),
               R"(,"timeAllowedToLive":)", number(fields[kTimeAllowedToLive]), R"(,"values":[)");
  for (std::size_t i = kFieldCount; i < goose.count; ++i) out = put(putValue(out, fields[i]), ',');
  if (goose.count > kFieldCount) --out;
  const auto seconds = static_cast<std::uint32_t>(receivedAt);
  const Time received{seconds, static_cast<unsigned>(std::lround((receivedAt - seconds) * 1000))};
  return putAll(out, R"(],"receivedAt":)", received, R"(,"srcMac":)", Mac{goose.frame.data() + 6},
                R"(,"dstMac":)", Mac{goose.frame.data()}, "}}");
}

}  // namespace tarnlink::bench
