#include "goosestack/sv_pdu.h"

#include <array>
#include <charconv>
#include <string>

#include "ber/ber_reader.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/utf8.h"

namespace goosestack {
namespace {

constexpr std::size_t kHeaderLength = 8;  // Octets.
constexpr std::uint8_t kTagSavPdu = 0x60;
constexpr std::uint8_t kTagNoAsdu = 0x80;
constexpr std::uint8_t kTagSeqAsdu = 0xA2;
constexpr std::uint8_t kTagAsdu = 0x30;

/// The fields of an ASDU. Their tags are 0x80 plus these numbers.
enum Field : std::uint8_t {
  kSvId,
  kDatSet,
  kSmpCnt,
  kConfRev,
  kRefrTm,
  kSmpSynch,
  kSmpRate,
  kSample,
  kSmpMod,
  kFieldCount,
};
constexpr std::uint8_t kFirstFieldTag = 0x80;

struct MandatoryField {
  Field field;
  const char* name;
};
constexpr MandatoryField kMandatoryFields[] = {{kSvId, "svID"},
                                               {kSmpCnt, "smpCnt"},
                                               {kConfRev, "confRev"},
                                               {kSmpSynch, "smpSynch"},
                                               {kSample, "sample"}};

std::uint16_t readUInt16(ByteView octets, std::size_t at) {
  return static_cast<std::uint16_t>(octets[at] << 8 | octets[at + 1]);
}

std::string_view textOf(ByteView value) {
  if (!isValidUtf8(value)) return {};
  return {reinterpret_cast<const char*>(value.data()), value.size()};
}

/// The values of an ASDU, still encoded. Of a tag that occurs more than once the last one counts.
struct FieldTable {
  explicit FieldTable(ByteView content) {
    BerSequence sequence(content);
    while (const std::optional<BerTlv> element = sequence.next()) {
      const auto number = static_cast<std::uint8_t>(element->tag - kFirstFieldTag);
      if (number >= kFieldCount) continue;
      values[number] = element->value;
      present |= 1U << number;
    }
  }

  bool has(Field field) const { return (present >> field & 1U) != 0; }

  std::uint32_t number(Field field) const { return GoosePdu::parseUInt32(values[field]); }

  std::optional<std::uint16_t> word(Field field) const {
    if (!has(field)) return std::nullopt;
    return static_cast<std::uint16_t>(number(field));
  }

  std::string missing() const {
    std::string names;
    for (const auto& [field, name] : kMandatoryFields) {
      if (has(field)) continue;
      if (!names.empty()) names += ", ";
      names += name;
    }
    return names;
  }

  std::array<ByteView, kFieldCount> values;
  std::uint32_t present = 0;
};

constexpr std::uint32_t kMandatoryBits = [] {
  std::uint32_t bits = 0;
  for (const auto& [field, name] : kMandatoryFields) bits |= 1U << field;
  return bits;
}();

SvAsdu asduOf(const FieldTable& fields) {
  SvAsdu asdu;
  asdu.svId = textOf(fields.values[kSvId]);
  if (fields.has(kDatSet)) asdu.datSet = textOf(fields.values[kDatSet]);
  asdu.smpCnt = static_cast<std::uint16_t>(fields.number(kSmpCnt));
  asdu.confRev = fields.number(kConfRev);
  if (fields.has(kRefrTm)) asdu.refrTm = GoosePdu::parseUTCTime(fields.values[kRefrTm]);
  asdu.smpSynch = static_cast<std::uint8_t>(fields.number(kSmpSynch));
  asdu.smpRate = fields.word(kSmpRate);
  asdu.smpMod = fields.word(kSmpMod);
  asdu.samples = fields.values[kSample];
  return asdu;
}

GooseError wrongTag(ByteView body) {
  std::string text = "Expected SV PDU tag 0x60, got ";
  if (body.empty()) return GooseError::parseError(text + "empty");
  char digits[2];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), body[0], 16);
  return GooseError::parseError(text.append(digits, end));
}

GooseResult<void> parseAsdus(ByteView octets, std::vector<SvAsdu>& asdus) {
  for (std::size_t at = 0; at < octets.size() && asdus.size() < SvPdu::kMaxAsdus;) {
    const std::optional<BerTlv> element = BerTlv::parse(octets, at);
    if (!element || element->tag != kTagAsdu) {
      return GooseError::parseError("Malformed ASDU " + std::to_string(asdus.size() + 1));
    }
    const FieldTable fields(element->value);
    if ((fields.present & kMandatoryBits) != kMandatoryBits) {
      return GooseError::parseError("Missing mandatory SV fields: " + fields.missing());
    }
    asdus.push_back(asduOf(fields));
    at += element->totalBytes;
  }
  return {};
}

}  // namespace

GooseResult<void> SvPdu::parseInto(ByteView rawPayload, SvPdu& pdu) {
  pdu.asdus.clear();
  if (rawPayload.size() < kHeaderLength) return GooseError::parseError("Too short for SV header");
  const ByteView body = rawPayload.subspan(kHeaderLength);
  const std::optional<BerTlv> element = BerTlv::parse(body, 0);
  if (!element || element->tag != kTagSavPdu) return wrongTag(body);
  pdu.appId = readUInt16(rawPayload, 0);
  pdu.length = readUInt16(rawPayload, 2);
  pdu.reserved1 = readUInt16(rawPayload, 4);
  pdu.reserved2 = readUInt16(rawPayload, 6);
  pdu.noAsdu = 0;
  std::optional<ByteView> asdus;
  BerSequence sequence(element->value);
  while (const std::optional<BerTlv> field = sequence.next()) {
    if (field->tag == kTagNoAsdu) pdu.noAsdu = GoosePdu::parseUInt32(field->value);
    if (field->tag == kTagSeqAsdu && !asdus) asdus = field->value;
  }
  if (!asdus) return GooseError::parseError("Missing seqASDU");
  GooseResult<void> result = parseAsdus(*asdus, pdu.asdus);
  if (!result) pdu.asdus.clear();
  return result;
}

}  // namespace goosestack
