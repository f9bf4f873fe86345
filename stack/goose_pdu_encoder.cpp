// The writing half of GoosePdu.
#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>
#include <utility>
#include <variant>

#include "goosestack/goose_pdu.h"
#include "stack/goose_data_tags.h"

namespace goosestack {
namespace {

constexpr std::uint8_t kTagGoosePdu = 0x61;
constexpr double kFractionsPerSecond = 16777216.0;  // 2^24.
constexpr std::uint8_t kTimeQuality = 0x0A;         // No flags, 10 bits of accuracy.
constexpr std::uint8_t kFloatExponentWidth = 8;     // Bits.
constexpr std::uint8_t kDoubleExponentWidth = 11;   // Bits.

ByteView octetsOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint8_t flagOctet(bool flag) {
  return flag ? 0xFF : 0x00;
}

bool isUnknown(const GooseDataValue& value) {
  return value.kind() == GooseDataValue::Kind::unknown;
}

/// Gathers elements until one is refused.
class ElementWriter {
 public:
  void append(std::uint8_t tag, ByteView value) {
    if (refusal_ || appendBerTLV(octets_, tag, value)) return;
    refusal_ = GooseError::sendFailed("GOOSE element of " + std::to_string(value.size()) +
                                      " octets exceeds the limit of " +
                                      std::to_string(kMaxBerValueLength));
  }
  void append(std::uint8_t tag, std::uint32_t value) {
    append(tag, GoosePdu::encodeUInt32(value).octets());
  }
  void append(std::uint8_t tag, bool flag) {
    const std::uint8_t octet = flagOctet(flag);
    append(tag, ByteView(&octet, 1));
  }
  /// A constructed element of what `inner` gathered, or its refusal.
  void append(std::uint8_t tag, const ElementWriter& inner) {
    if (!refusal_) refusal_ = inner.refusal_;
    append(tag, ByteView(inner.octets_));
  }
  void append(const GooseDataValue& value);

  const std::optional<GooseError>& refusal() const { return refusal_; }
  const Bytes& octets() const { return octets_; }

 private:
  Bytes octets_;
  std::optional<GooseError> refusal_;
};

/// IEEE 754 bits behind the octet that gives the width of the exponent.
template <class Bits>
auto floatOctets(std::uint8_t exponentWidth, Bits bits) {
  std::array<std::uint8_t, 1 + sizeof(Bits)> octets{exponentWidth};
  for (std::size_t i = sizeof(Bits); i > 0; --i) {
    octets[i] = static_cast<std::uint8_t>(bits & 0xFF);
    bits >>= 8;
  }
  return octets;
}

/// The content octets (X.690, 8.6.2): the number of unused bits, then the bits.
Bytes packBits(const BitString& bits) {
  Bytes content{static_cast<std::uint8_t>(bits.octets().size() * 8 - bits.size())};
  content.insert(content.end(), bits.octets().begin(), bits.octets().end());
  return content;
}

struct ValueEncoder {
  ElementWriter& out;

  void operator()(bool value) const { out.append(kTagBoolean, value); }
  void operator()(const BitString& bits) const { out.append(kTagBitString, packBits(bits)); }
  void operator()(std::int32_t value) const {
    out.append(kTagInteger, BerIntegerOctets(value).octets());
  }
  void operator()(std::uint32_t value) const { out.append(kTagUnsigned, value); }
  void operator()(float value) const {
    out.append(kTagFloatingPoint,
               floatOctets(kFloatExponentWidth, std::bit_cast<std::uint32_t>(value)));
  }
  void operator()(double value) const {
    out.append(kTagRealDouble,
               floatOctets(kDoubleExponentWidth, std::bit_cast<std::uint64_t>(value)));
  }
  void operator()(const Bytes& octets) const { out.append(kTagOctetString, octets); }
  void operator()(const std::string& text) const { out.append(kTagVisibleString, octetsOf(text)); }
  void operator()(TimePoint time) const { out.append(kTagUtcTime, GoosePdu::encodeUTCTime(time)); }
  void operator()(const GooseDataValue::Structure& structure) const {
    appendMembers(kTagStructure, structure.members);
  }
  void operator()(const GooseDataValue::Array& array) const {
    appendMembers(kTagArray, array.members);
  }
  void operator()(const GooseDataValue::Unknown&) const {}

  void appendMembers(std::uint8_t tag, std::span<const GooseDataValue> members) const {
    ElementWriter inner;
    for (const GooseDataValue& member : members) inner.append(member);
    out.append(tag, inner);
  }
};

void ElementWriter::append(const GooseDataValue& value) {
  std::visit(ValueEncoder{*this}, value.payload);
}

/// The twelve fields in standard order.
ElementWriter encodeFields(const GoosePduFields& fields) {
  ElementWriter out;
  out.append(0x80, octetsOf(fields.goCBRef));
  out.append(0x81, fields.timeAllowedToLive);
  out.append(0x82, octetsOf(fields.datSet));
  out.append(0x83, octetsOf(fields.goId));
  out.append(0x84, GoosePdu::encodeUTCTime(fields.timestamp));
  out.append(0x85, fields.stNum);
  out.append(0x86, fields.sqNum);
  out.append(0x87, fields.simulation);
  out.append(0x88, fields.confRev);
  out.append(0x89, fields.ndsCom);
  const auto unknownCount = std::count_if(fields.values.begin(), fields.values.end(), isUnknown);
  out.append(0x8A, static_cast<std::uint32_t>(fields.values.size() -
                                              static_cast<std::size_t>(unknownCount)));
  ValueEncoder{out}.appendMembers(0xAB, fields.values);
  return out;
}

}  // namespace

GooseResult<Bytes> GoosePdu::encode(const GoosePduFields& fields) {
  ElementWriter pdu;
  pdu.append(kTagGoosePdu, encodeFields(fields));
  if (pdu.refusal()) return *pdu.refusal();
  if (pdu.octets().size() > kMaxElementSize) {
    return GooseError::sendFailed("GOOSE PDU of " + std::to_string(pdu.octets().size()) +
                                  " octets exceeds the limit of " +
                                  std::to_string(kMaxElementSize));
  }
  const auto length = static_cast<std::uint16_t>(8 + pdu.octets().size());
  Bytes payload{static_cast<std::uint8_t>(fields.header.appId >> 8),
                static_cast<std::uint8_t>(fields.header.appId & 0xFF),
                static_cast<std::uint8_t>(length >> 8),
                static_cast<std::uint8_t>(length & 0xFF),
                0,
                0,
                0,
                0};
  payload.insert(payload.end(), pdu.octets().begin(), pdu.octets().end());
  return payload;
}

std::array<std::uint8_t, 8> GoosePdu::encodeUTCTime(TimePoint time) {
  const double whole = unixSeconds(time);
  std::uint32_t seconds = 0;
  std::uint32_t fraction = 0;
  if (whole >= 0.0 && whole <= 4294967295.0) {  // False for NaN.
    seconds = static_cast<std::uint32_t>(whole);
    fraction = static_cast<std::uint32_t>((whole - seconds) * kFractionsPerSecond);
  }
  return {static_cast<std::uint8_t>(seconds >> 24),
          static_cast<std::uint8_t>((seconds >> 16) & 0xFF),
          static_cast<std::uint8_t>((seconds >> 8) & 0xFF),
          static_cast<std::uint8_t>(seconds & 0xFF),
          static_cast<std::uint8_t>(fraction >> 16),
          static_cast<std::uint8_t>((fraction >> 8) & 0xFF),
          static_cast<std::uint8_t>(fraction & 0xFF),
          kTimeQuality};
}

GooseResult<void> GoosePdu::encodeDataValue(const GooseDataValue& value, Bytes& out) {
  ElementWriter element;
  element.append(value);
  if (element.refusal()) return *element.refusal();
  out.insert(out.end(), element.octets().begin(), element.octets().end());
  return {};
}

}  // namespace goosestack
