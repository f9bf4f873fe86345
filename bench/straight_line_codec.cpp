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

enum Field { kGocbRef, kTimeAllowedToLive, kDatSet, kGoId, kTime, kStNum, kSqNum };
enum LaterField { kSimulation = 7, kConfRev, kNdsCom };

std::uint32_t bigEndian(const std::uint8_t* octets, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | octets[i];
  return value;
}

/// The content's length behind a tag, in the short form or the two longer ones that frames need.
const std::uint8_t* skipLength(const std::uint8_t* at, std::size_t& length) {
  const std::size_t longer = *at < 0x80 ? 0 : *at & 0x7F;
  length = longer == 0 ? *at : bigEndian(at + 1, longer);
  return at + 1 + longer;
}

/// Decodes one element; `store` is where octets are kept, and moves on behind them.
void decodeElement(const std::uint8_t* at, bool isTime, bool isNumber, StraightLineValue& value,
                   std::uint8_t*& store) {
  value.tag = at[0];
  value.length = at[1];
  if (isTime) {
    value.number = bigEndian(at + 2, 4);
    value.fraction = bigEndian(at + 6, 3);
  } else if (isNumber) {
    value.number = bigEndian(at + 2, at[1]);
    // An integer's sign; fields and unsigned values have a zero octet in front of such a bit.
    if ((at[2] & 0x80) != 0 && at[1] < 4) value.number |= ~std::uint32_t{0} << (8 * at[1]);
  } else {
    std::memcpy(store, at + 2, at[1]);
    value.octets = store;
    store += at[1];
  }
}

bool isText(std::size_t field) {
  return field == kGocbRef || field == kDatSet || field == kGoId;
}

bool isNumber(std::uint8_t tag) {
  return tag == kTagBoolean || tag == kTagInteger || tag == kTagUnsigned;
}

template <std::size_t N>
char* put(char* out, const char (&literal)[N]) {
  std::memcpy(out, literal, N - 1);
  return out + N - 1;
}

char* put(char* out, const StraightLineValue& text) {
  *out++ = '"';
  std::memcpy(out, text.octets, text.length);
  out += text.length;
  *out++ = '"';
  return out;
}

template <class Number>
char* putNumber(char* out, Number value) {
  return std::to_chars(out, out + 32, value).ptr;
}

char* putBoolean(char* out, bool value) {
  return value ? put(out, "true") : put(out, "false");
}

char* putMac(char* out, const std::uint8_t* mac) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = '"';
  for (int i = 0; i < 6; ++i) {
    *out++ = kDigits[mac[i] >> 4];
    *out++ = kDigits[mac[i] & 0x0F];
    *out++ = ':';
  }
  out[-1] = '"';
  return out;
}

char* putTwoDigits(char* out, unsigned value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
}

char* putTime(char* out, std::uint32_t seconds, unsigned milliseconds) {
  const std::chrono::sys_days day(std::chrono::days(seconds / 86'400));
  const std::chrono::year_month_day date(day);
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  const unsigned rest = seconds % 86'400;
  *out++ = '"';
  out = putTwoDigits(putTwoDigits(out, year / 100), year % 100);
  *out++ = '-';
  out = putTwoDigits(out, static_cast<unsigned>(date.month()));
  *out++ = '-';
  out = putTwoDigits(out, static_cast<unsigned>(date.day()));
  *out++ = 'T';
  out = putTwoDigits(out, rest / 3600);
  *out++ = ':';
  out = putTwoDigits(out, rest / 60 % 60);
  *out++ = ':';
  out = putTwoDigits(out, rest % 60);
  *out++ = '.';
  *out++ = static_cast<char>('0' + milliseconds / 100);
  out = putTwoDigits(out, milliseconds % 100);
  return put(out, "Z\"");
}

char* putTime(char* out, const StraightLineValue& time) {
  const auto milliseconds = static_cast<unsigned>(std::uint64_t{time.fraction} * 1000 >> 24);
  return putTime(out, time.number, milliseconds);
}

char* putTime(char* out, double unixSeconds) {
  const auto seconds = static_cast<std::uint32_t>(unixSeconds);
  return putTime(out, seconds, static_cast<unsigned>(std::lround((unixSeconds - seconds) * 1000)));
}

char* putBits(char* out, const StraightLineValue& value) {
  const std::size_t count = (value.length - 1U) * 8 - value.octets[0];
  for (std::size_t i = 0; i < count; ++i) {
    out = putBoolean(out, (value.octets[1 + i / 8] & 0x80 >> i % 8) != 0);
    *out++ = ',';
  }
  return out - (count != 0 ? 1 : 0);
}

char* putValue(char* out, const StraightLineValue& value) {
  switch (value.tag) {
    case kTagBoolean:
      out = put(out, "{\"runtimeType\":\"boolean\",\"value\":");
      out = putBoolean(out, value.number != 0);
      break;
    case kTagBitString:
      out = put(out, "{\"runtimeType\":\"bitString\",\"bits\":[");
      out = putBits(out, value);
      *out++ = ']';
      break;
    case kTagInteger:
      out = put(out, "{\"runtimeType\":\"int32\",\"value\":");
      out = putNumber(out, static_cast<std::int32_t>(value.number));
      break;
    case kTagUnsigned:
      out = put(out, "{\"runtimeType\":\"uint32\",\"value\":");
      out = putNumber(out, value.number);
      break;
    case kTagFloatingPoint:
      out = put(out, "{\"runtimeType\":\"float32\",\"value\":");
      out = putNumber(out, double{std::bit_cast<float>(bigEndian(value.octets + 1, 4))});
      break;
    case kTagVisibleString:
      out = put(out, "{\"runtimeType\":\"visibleString\",\"value\":");
      out = put(out, value);
      break;
    default:
      out = put(out, "{\"runtimeType\":\"utcTime\",\"value\":");
      out = putTime(out, value);
  }
  *out++ = '}';
  return out;
}

}  // namespace

bool decodeGoose(ByteView frame, StraightLineGoose& goose) {
  const std::uint8_t* at = frame.data();
  const std::uint8_t* end = at + frame.size();
  if (frame.size() < 24 || frame.size() > goose.store.size() || bigEndian(at + 12, 2) != 0x88B8)
    return false;
  std::memcpy(goose.macs.data(), at, goose.macs.size());
  goose.appId = static_cast<std::uint16_t>(bigEndian(at + 14, 2));
  std::uint8_t* store = goose.store.data();
  at += 22;
  if (*at != 0x61) return false;
  std::size_t length = 0;
  at = skipLength(at + 1, length);
  if (length > static_cast<std::size_t>(end - at)) return false;
  for (std::uint8_t number = 0; number < goose.fields.size(); ++number) {
    if (end - at < 2 || at[0] != 0x80 + number || at[1] > end - at - 2) return false;
    decodeElement(at, number == kTime, !isText(number), goose.fields[number], store);
    at += 2 + at[1];
  }
  if (end - at < 2 || *at != 0xAB) return false;
  at = skipLength(at + 1, length);
  if (length > static_cast<std::size_t>(end - at)) return false;
  end = at + length;
  goose.valueCount = 0;
  while (end - at >= 2 && at[1] <= end - at - 2 && goose.valueCount < goose.values.size()) {
    decodeElement(at, *at == kTagUtcTime, isNumber(*at), goose.values[goose.valueCount++], store);
    at += 2 + at[1];
  }
  return at == end;
}

char* writeGooseEvent(const StraightLineGoose& goose, double receivedAt, char* out) {
  const auto& fields = goose.fields;
  out = put(out, "{\"event\":\"goose_message\",\"message\":{\"appId\":");
  out = putNumber(out, goose.appId);
  out = put(out, ",\"goCBRef\":");
  out = put(out, fields[kGocbRef]);
  out = put(out, ",\"dataSet\":");
  out = put(out, fields[kDatSet]);
  out = put(out, ",\"timestamp\":");
  out = putTime(out, fields[kTime]);
  out = put(out, ",\"stNum\":");
  out = putNumber(out, fields[kStNum].number);
  out = put(out, ",\"sqNum\":");
  out = putNumber(out, fields[kSqNum].number);
  out = put(out, ",\"test\":");
  out = putBoolean(out, fields[kSimulation].number != 0);
  out = put(out, ",\"needsCommission\":");
  out = putBoolean(out, fields[kNdsCom].number != 0);
  out = put(out, ",\"confRev\":");
  out = putNumber(out, fields[kConfRev].number);
  out = put(out, ",\"timeAllowedToLive\":");
  out = putNumber(out, fields[kTimeAllowedToLive].number);
  out = put(out, ",\"values\":[");
  for (std::size_t i = 0; i < goose.valueCount; ++i) {
    if (i != 0) *out++ = ',';
    out = putValue(out, goose.values[i]);
  }
  out = put(out, "],\"receivedAt\":");
  out = putTime(out, receivedAt);
  out = put(out, ",\"srcMac\":");
  out = putMac(out, goose.macs.data() + 6);
  out = put(out, ",\"dstMac\":");
  out = putMac(out, goose.macs.data());
  return put(out, "}}");
}

}  // namespace tarnlink::bench
