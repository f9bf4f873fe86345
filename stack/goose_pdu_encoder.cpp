// The writing half of GoosePdu.
#include <algorithm>
#include <bit>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

#include "ber/ber_writer.h"
#include "goosestack/goose_pdu.h"
#include "stack/goose_pdu_tags.h"

namespace goosestack {
namespace {

constexpr std::uint8_t kTimeQuality = 0x0A;        // No flags, 10 bits of accuracy.
constexpr std::uint8_t kFloatExponentWidth = 8;    // Bits.
constexpr std::uint8_t kDoubleExponentWidth = 11;  // Bits.

/// The big-endian octets of `value` from `at` on.
template <class Value>
void writeBigEndian(Value value, std::uint8_t* at) {
  for (std::size_t i = sizeof(Value); i > 0; --i) {
    at[i - 1] = static_cast<std::uint8_t>(value & 0xFF);
    value = static_cast<Value>(value >> (sizeof(Value) > 1 ? 8 : 0));
  }
}

/// Appends elements until one is refused.
class ElementWriter {
 public:
  explicit ElementWriter(Bytes& out) : out_(out) {}

  void append(std::uint8_t tag, ByteView value) {
    if (!refusal_ && !appendBerTLV(out_, tag, value)) refuse(value.size());
  }
  void append(std::uint8_t tag, std::string_view text) {
    append(tag, ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  }
  void append(std::uint8_t tag, std::int64_t value) {
    append(tag, BerIntegerOctets(value).octets());
  }
  void append(std::uint8_t tag, bool flag) {
    const std::uint8_t octet = flag ? 0xFF : 0x00;
    append(tag, ByteView(&octet, 1));
  }
  /// A constructed element of what `content` appends.
  template <class Content>
  void appendAround(std::uint8_t tag, Content content) {
    out_.push_back(tag);
    const std::size_t begin = out_.size();
    content();
    const std::size_t size = out_.size() - begin;
    Bytes length;
    if (!refusal_ && !appendBerLength(length, size)) refuse(size);
    out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(begin), length.begin(), length.end());
  }
  void appendValues(std::uint8_t tag, std::span<const GooseDataValue> values) {
    appendAround(tag, [&] {
      for (const GooseDataValue& value : values) std::visit(*this, value.payload);
    });
  }

  // One for each alternative of a value.
  void operator()(bool value) { append(kTagBoolean, value); }
  void operator()(const BitString& bits) {
    // The number of unused bits, then the bits (X.690, 8.6.2).
    Bytes content{static_cast<std::uint8_t>(bits.octets().size() * 8 - bits.size())};
    content.insert(content.end(), bits.octets().begin(), bits.octets().end());
    append(kTagBitString, content);
  }
  void operator()(std::int32_t value) { append(kTagInteger, std::int64_t{value}); }
  void operator()(std::uint32_t value) { append(kTagUnsigned, std::int64_t{value}); }
  void operator()(float value) {
    appendFloat(kTagFloatingPoint, kFloatExponentWidth, std::bit_cast<std::uint32_t>(value));
  }
  void operator()(double value) {
    appendFloat(kTagRealDouble, kDoubleExponentWidth, std::bit_cast<std::uint64_t>(value));
  }
  void operator()(const Bytes& octets) { append(kTagOctetString, octets); }
  void operator()(const std::string& text) { append(kTagVisibleString, text); }
  void operator()(TimePoint time) { append(kTagUtcTime, GoosePdu::encodeUTCTime(time)); }
  void operator()(const GooseDataValue::Structure& structure) {
    appendValues(kTagStructure, structure.members);
  }
  void operator()(const GooseDataValue::Array& array) { appendValues(kTagArray, array.members); }
  void operator()(const GooseDataValue::Unknown&) {}

  const std::optional<GooseError>& refusal() const { return refusal_; }

 private:
  /// IEEE 754 bits behind the octet that gives the width of the exponent.
  template <class Bits>
  void appendFloat(std::uint8_t tag, std::uint8_t exponentWidth, Bits bits) {
    std::array<std::uint8_t, 1 + sizeof(Bits)> octets{exponentWidth};
    writeBigEndian(bits, octets.data() + 1);
    append(tag, octets);
  }
  void refuse(std::size_t size) {
    refusal_ = GooseError::sendFailed("GOOSE element of " + std::to_string(size) +
                                      " octets exceeds the limit of " +
                                      std::to_string(kMaxBerValueLength));
  }

  Bytes& out_;
  std::optional<GooseError> refusal_;
};

void appendFields(const GoosePdu& pdu, ElementWriter& out) {
  const auto field = [&out](Field number, auto value) {
    out.append(static_cast<std::uint8_t>(kFirstFieldTag + number), value);
  };
  const auto count = std::count_if(pdu.allData.begin(), pdu.allData.end(), [](const auto& value) {
    return value.kind() != GooseDataValue::Kind::unknown;
  });
  field(kGocbRef, std::string_view(pdu.goCBRef));
  field(kTimeAllowedToLive, std::int64_t{pdu.timeAllowedToLive});
  field(kDatSet, std::string_view(pdu.datSet));
  field(kGoId, std::string_view(pdu.goId));
  field(kTime, GoosePdu::encodeUTCTime(pdu.timestamp));
  field(kStNum, std::int64_t{pdu.stNum});
  field(kSqNum, std::int64_t{pdu.sqNum});
  field(kSimulation, pdu.simulation);
  field(kConfRev, std::int64_t{pdu.confRev});
  field(kNdsCom, pdu.ndsCom);
  field(kNumDatSetEntries, std::int64_t{count});
  out.appendValues(kTagAllData, pdu.allData);
}

}  // namespace

GooseResult<Bytes> GoosePdu::encode(const GoosePdu& pdu) {
  Bytes payload(kGooseHeaderLength);
  ElementWriter out(payload);
  out.appendAround(kTagGoosePdu, [&] { appendFields(pdu, out); });
  if (out.refusal()) return *out.refusal();
  const std::size_t size = payload.size() - kGooseHeaderLength;
  if (size > kMaxElementSize) {
    return GooseError::sendFailed("GOOSE PDU of " + std::to_string(size) +
                                  " octets exceeds the limit of " +
                                  std::to_string(kMaxElementSize));
  }
  writeBigEndian(pdu.header.appId, payload.data());
  writeBigEndian(static_cast<std::uint16_t>(payload.size()), payload.data() + 2);
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
  std::array<std::uint8_t, 8> octets{};
  writeBigEndian(seconds, octets.data());
  writeBigEndian(fraction << 8 | kTimeQuality, octets.data() + 4);
  return octets;
}

GooseResult<void> GoosePdu::encodeDataValue(const GooseDataValue& value, Bytes& out) {
  const std::size_t before = out.size();
  ElementWriter writer(out);
  std::visit(writer, value.payload);
  if (!writer.refusal()) return {};
  out.resize(before);
  return *writer.refusal();
}

}  // namespace goosestack
