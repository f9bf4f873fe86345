#include "goosestack/goose_pdu.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <optional>

#include "ber/ber_reader.h"
#include "goosestack/utf8.h"
#include "stack/goose_pdu_tags.h"

namespace goosestack {
namespace {

struct MandatoryField {
  Field field;
  const char* name;
};
// In the order in which a complaint names them.
constexpr MandatoryField kMandatoryFields[] = {
    {kGocbRef, "gocbRef"}, {kTimeAllowedToLive, "timeAllowedToLive"},
    {kDatSet, "datSet"},   {kTime, "t"},
    {kStNum, "stNum"},     {kSqNum, "sqNum"},
    {kConfRev, "confRev"}, {kNumDatSetEntries, "numDatSetEntries"},
};

constexpr std::uint32_t bitOf(std::uint8_t number) {
  return std::uint32_t{1} << number;
}

constexpr std::uint32_t kMandatoryBits = [] {
  std::uint32_t bits = 0;
  for (const auto& [field, name] : kMandatoryFields) bits |= bitOf(field);
  return bits;
}();

/// The values of a PDU's elements, still encoded. Absent ones are empty.
class FieldTable {
 public:
  /// Of a tag that occurs more than once the last element counts, of allData the first.
  explicit FieldTable(ByteView content) {
    BerSequence sequence(content);
    while (const std::optional<BerTlv> element = sequence.next()) {
      const auto number = static_cast<std::uint8_t>(element->tag - kFirstFieldTag);
      if (number < kFieldCount) {
        values_[number] = {element->value.data(), element->value.size()};
        present_ |= bitOf(number);
      } else if (element->tag == kTagAllData && allData_.begin == nullptr) {
        allData_ = {element->value.data(), element->value.size()};
      }
    }
  }

  bool hasMandatoryFields() const { return (present_ & kMandatoryBits) == kMandatoryBits; }

  std::string missingFields() const {
    std::string names;
    for (const auto& [field, name] : kMandatoryFields) {
      if ((present_ & bitOf(field)) != 0) continue;
      if (!names.empty()) names += ", ";
      names += name;
    }
    return names;
  }

  ByteView operator[](Field field) const {
    if ((present_ & bitOf(field)) == 0) return {};
    return {values_[field].begin, values_[field].size};
  }
  ByteView allData() const { return {allData_.begin, allData_.size}; }

 private:
  // Written member by member: a span copied whole is read back before its halves have left the
  // processor's store buffer, which takes longer than all the rest of the walk.
  struct Value {
    const std::uint8_t* begin;
    std::size_t size;
  };
  std::array<Value, kFieldCount> values_;  // Not cleared: only those present are looked at.
  std::uint32_t present_ = 0;
  Value allData_{nullptr, 0};
};

std::uint16_t readUInt16(ByteView octets, std::size_t at) {
  return static_cast<std::uint16_t>(octets[at] << 8 | octets[at + 1]);
}

bool isSet(ByteView value) {
  return !value.empty() && value[0] != 0;
}

std::string wrongTagText(ByteView pdu) {
  std::string text = "Expected GOOSE PDU tag 0x61, got ";
  if (pdu.empty()) return text + "empty";
  char digits[2];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), pdu[0], 16);
  return text.append(digits, end);
}

void assignText(ByteView value, std::string& text) {
  if (isValidUtf8(value)) {
    text.assign(reinterpret_cast<const char*>(value.data()), value.size());
  } else {
    text.clear();
  }
}

// Apart from reuseAs(), because a steady stream of like frames never comes here.
template <class T>
[[gnu::noinline]] T& become(GooseDataValue::Payload& payload) {
  return payload.emplace<T>();
}

/// The payload as alternative T; its storage survives when it holds one already.
template <class T>
T& reuseAs(GooseDataValue::Payload& payload) {
  if (T* held = std::get_if<T>(&payload)) return *held;
  return become<T>(payload);
}

void assignUnknown(std::uint8_t tag, ByteView value, GooseDataValue::Unknown& unknown) {
  unknown.tag = tag;
  unknown.data.assign(value.begin(), value.end());
}

void assignBits(ByteView value, BitString& bits) {
  if (value.size() < 2) return bits.assign({}, 0);
  const ByteView octets = value.subspan(1);
  bits.assign(octets, octets.size() * 8 - std::min<std::size_t>(value[0], 8));
}

std::int32_t parseInt32(ByteView octets) {
  std::uint32_t accumulator = !octets.empty() && (octets[0] & 0x80) != 0 ? ~std::uint32_t{0} : 0;
  for (const std::uint8_t octet : octets) accumulator = (accumulator << 8) | octet;
  return static_cast<std::int32_t>(accumulator);
}

float parseFloat(ByteView octets) {
  // The first octet gives the width of the exponent; 8 is the only one that five octets can have.
  if (octets.size() != 5) return 0.0F;
  return std::bit_cast<float>(GoosePdu::parseUInt32(octets.subspan(1)));
}

std::size_t countElements(ByteView octets) {
  std::size_t count = 0;
  for (BerSequence sequence(octets); sequence.next();) ++count;
  return count;
}

/// What a frame has used of its bounds.
struct Bounds {
  int nesting = 0;  // Structures and arrays around the values at hand.
  int filled = 0;   // Structures and arrays that have got members.
};

void parseDataValuesInto(ByteView octets, Bounds& bounds, std::vector<GooseDataValue>& values);

/// Walking a level reads its headers only, so that the cost of a whole dataset is linear in its
/// octets.
void parseMembers(ByteView octets, Bounds& bounds, std::vector<GooseDataValue>& members) {
  const bool isInBounds =
      bounds.nesting < GoosePdu::kMaxDataNesting && bounds.filled < GoosePdu::kMaxFilledStructures;
  if (octets.empty() || !isInBounds) return members.clear();
  ++bounds.filled;
  // Counting is cheaper than moving values to ever larger storage.
  if (members.capacity() == 0) members.reserve(countElements(octets));
  ++bounds.nesting;
  parseDataValuesInto(octets, bounds, members);
  --bounds.nesting;
}

// Apart from the plain values, which need hardly a register beside what a value's storage takes.
[[gnu::noinline]] void parseStoredValueInto(std::uint8_t tag, ByteView value, Bounds& bounds,
                                            GooseDataValue::Payload& payload) {
  switch (tag) {
    case kTagBitString:
      return assignBits(value, reuseAs<BitString>(payload));
    case kTagOctetString:
      reuseAs<Bytes>(payload).assign(value.begin(), value.end());
      return;
    case kTagVisibleString:
      return assignText(value, reuseAs<std::string>(payload));
    case kTagArray:
      return parseMembers(value, bounds, reuseAs<GooseDataValue::Array>(payload).members);
    case kTagStructure:
      return parseMembers(value, bounds, reuseAs<GooseDataValue::Structure>(payload).members);
    default:
      return assignUnknown(tag, value, reuseAs<GooseDataValue::Unknown>(payload));
  }
}

void parseDataValueInto(std::uint8_t tag, ByteView value, Bounds& bounds, GooseDataValue& result) {
  GooseDataValue::Payload& payload = result.payload;
  switch (tag) {
    case kTagBoolean:
      reuseAs<bool>(payload) = isSet(value);
      break;
    case kTagInteger:
      reuseAs<std::int32_t>(payload) = parseInt32(value);
      break;
    case kTagUnsigned:
      reuseAs<std::uint32_t>(payload) = GoosePdu::parseUInt32(value);
      break;
    case kTagFloatingPoint:
      reuseAs<float>(payload) = parseFloat(value);
      break;
    case kTagUtcTime:
      reuseAs<TimePoint>(payload) = GoosePdu::parseUTCTime(value);
      break;
    default:
      parseStoredValueInto(tag, value, bounds, payload);
  }
}

void parseDataValuesInto(ByteView octets, Bounds& bounds, std::vector<GooseDataValue>& values) {
  const std::size_t held = values.size();
  std::size_t count = 0;
  BerSequence sequence(octets);
  while (const std::optional<BerTlv> element = sequence.next()) {
    if (count >= held) values.emplace_back();
    parseDataValueInto(element->tag, element->value, bounds, values[count]);
    ++count;
  }
  if (count < held) values.resize(count);
}

void fill(const FieldTable& fields, GoosePdu& pdu) {
  assignText(fields[kGocbRef], pdu.goCBRef);
  assignText(fields[kDatSet], pdu.datSet);
  assignText(fields[kGoId], pdu.goId);
  pdu.timeAllowedToLive = GoosePdu::parseUInt32(fields[kTimeAllowedToLive]);
  pdu.timestamp = GoosePdu::parseUTCTime(fields[kTime]);
  pdu.stNum = GoosePdu::parseUInt32(fields[kStNum]);
  pdu.sqNum = GoosePdu::parseUInt32(fields[kSqNum]);
  pdu.simulation = isSet(fields[kSimulation]);
  pdu.confRev = GoosePdu::parseUInt32(fields[kConfRev]);
  pdu.ndsCom = isSet(fields[kNdsCom]);
  pdu.numDatSetEntries = GoosePdu::parseUInt32(fields[kNumDatSetEntries]);
  // The sender's count saves the growing; an element has two octets at least, whatever it claims.
  const ByteView allData = fields.allData();
  pdu.allData.reserve(std::min<std::size_t>(pdu.numDatSetEntries, allData.size() / 2));
  Bounds bounds;
  parseDataValuesInto(allData, bounds, pdu.allData);
}

}  // namespace

GooseResult<GoosePdu> GoosePdu::parse(ByteView rawPayload) {
  GoosePdu pdu;
  if (const GooseResult<void> parsed = parseInto(rawPayload, pdu); !parsed) return parsed.error();
  return pdu;
}

GooseResult<void> GoosePdu::parseInto(ByteView rawPayload, GoosePdu& pdu) {
  if (rawPayload.size() < kGooseHeaderLength) {
    return GooseError::parseError("Too short for GOOSE header");
  }
  const ByteView body = rawPayload.subspan(kGooseHeaderLength);
  const std::optional<BerTlv> element = BerTlv::parse(body, 0);
  if (!element || element->tag != kTagGoosePdu) return GooseError::parseError(wrongTagText(body));
  const FieldTable fields(element->value);
  if (!fields.hasMandatoryFields()) {
    return GooseError::parseError("Missing mandatory GOOSE fields: " + fields.missingFields());
  }
  pdu.header = {readUInt16(rawPayload, 0), readUInt16(rawPayload, 2), readUInt16(rawPayload, 4),
                readUInt16(rawPayload, 6)};
  fill(fields, pdu);
  return {};
}

std::uint32_t GoosePdu::parseUInt32(ByteView octets) {
  std::uint32_t accumulator = 0;
  for (const std::uint8_t octet : octets) accumulator = (accumulator << 8) | octet;
  return accumulator;
}

TimePoint GoosePdu::parseUTCTime(ByteView octets) {
  if (octets.size() < 7) return kDistantPast;
  const std::uint32_t seconds = parseUInt32(octets.first(4));
  const std::uint32_t fraction = parseUInt32(octets.subspan(4, 3));
  return timeFromUnixSeconds(seconds + fraction / kFractionsPerSecond);
}

std::vector<GooseDataValue> GoosePdu::parseDataValues(ByteView octets) {
  std::vector<GooseDataValue> values;
  Bounds bounds;
  parseDataValuesInto(octets, bounds, values);
  return values;
}

GooseDataValue GoosePdu::parseDataValue(std::uint8_t tag, ByteView value) {
  GooseDataValue result;
  Bounds bounds;
  parseDataValueInto(tag, value, bounds, result);
  return result;
}

}  // namespace goosestack
