// The payload of a GOOSE frame (IEC 61850-8-1): an 8-octet header, then the goosePdu
// element (tag 0x61) in BER. Decoding is lenient about optional fields, order and unknown tags, and
// strict about the eight mandatory fields; encoding writes all twelve fields in standard order.
//
//   octets 0-1  APPID                       0x80 gocbRef             0x86 sqNum
//   octets 2-3  8 + size of the element     0x81 timeAllowedToLive   0x87 simulation
//   octets 4-7  reserved, written as zero   0x82 datSet              0x88 confRev
//   octet 8     0x61, length, the fields:   0x83 goID                0x89 ndsCom
//                                           0x84 t                   0x8A numDatSetEntries
//                                           0x85 stNum               0xAB allData
//
// All operations are pure: safe from any thread on distinct objects.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "goosestack/bytes.h"
#include "goosestack/goose_data_value.h"
#include "goosestack/goose_error.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// The header in front of the PDU element; all words big-endian.
struct GoosePduHeader {
  std::uint16_t appId = 0;
  std::uint16_t length = 0;  ///< Octets from the header's start to the PDU's end, as sent.
  std::uint16_t reserved1 = 0;
  std::uint16_t reserved2 = 0;

  bool operator==(const GoosePduHeader&) const = default;
};

/// A payload, decoded or to be encoded.
struct GoosePdu {
  /// A structure or array inside this many others decodes without its members: a frame of nothing
  /// but nested elements must not exhaust the stack.
  static constexpr int kMaxDataNesting = 32;
  /// Structures and arrays of one frame that decode with their members; further ones decode
  /// without. A jumbo frame of 9,000 octets holds 4,364 at most, 32 levels in 66 octets. Frames of
  /// 65,535 octets, which loopback and virtual links carry, would otherwise cost more than a
  /// millisecond for the storage of so many.
  static constexpr int kMaxFilledStructures = 4500;
  /// Octets of the largest PDU element whose size the header's length word can express.
  static constexpr std::size_t kMaxElementSize = 65535 - 8;

  GoosePduHeader header;
  std::string goCBRef;
  std::uint32_t timeAllowedToLive = 0;  ///< Milliseconds.
  std::string datSet;
  std::string goId;
  TimePoint timestamp{};
  std::uint32_t stNum = 0;
  std::uint32_t sqNum = 0;
  bool simulation = false;
  std::uint32_t confRev = 0;
  bool ndsCom = false;
  std::uint32_t numDatSetEntries = 0;  ///< As sent; not compared with `allData`.
  std::vector<GooseDataValue> allData;

  bool operator==(const GoosePdu&) const = default;

  /// Decodes a payload; octets behind the PDU element (Ethernet padding) are ignored. Fails with
  /// parseError: "Too short for GOOSE header", "Expected GOOSE PDU tag 0x61, got ..." or "Missing
  /// mandatory GOOSE fields: ...". Malformed data values end the value list early; texts that are
  /// not UTF-8 become empty.
  static GooseResult<GoosePdu> parse(ByteView rawPayload);

  /// The same into an existing PDU whose strings and values are reused, so that a stream of like
  /// frames allocates nothing. After a failure `pdu` is as it was.
  static GooseResult<void> parseInto(ByteView rawPayload, GoosePdu& pdu);

  /// The complete payload, header included. Of `header` only the `appId` is used; `unknown` values
  /// are left out, and numDatSetEntries is the number of the others. Fails with sendFailed, sizes
  /// in the text, when an element exceeds 65535 octets or the PDU element kMaxElementSize.
  static GooseResult<Bytes> encode(const GoosePdu& pdu);

  /// The last four octets, big-endian; no octets give 0.
  static std::uint32_t parseUInt32(ByteView octets);

  /// UtcTime (IEC 61850-8-1): 4 octets of seconds since 1970, 3 of fraction in 2^-24 s;
  /// the time quality behind them is ignored. Fewer than 7 octets give kDistantPast.
  static TimePoint parseUTCTime(ByteView octets);

  /// The values up to the first malformed element.
  static std::vector<GooseDataValue> parseDataValues(ByteView octets);

  /// Every element gives a value: of a tag that is not interpreted, `unknown`. A bit string whose
  /// count of unused bits exceeds 8 takes no bits from its last octet.
  static GooseDataValue parseDataValue(std::uint8_t tag, ByteView value);

  /// Time quality 0x0A: no flags, 10 bits of accuracy. Times that the 32-bit seconds cannot hold,
  /// NaN included, give seconds 0 and fraction 0.
  static std::array<std::uint8_t, 8> encodeUTCTime(TimePoint time);

  /// Appends the value's element; `unknown` appends nothing. Fails with sendFailed, and nothing is
  /// appended, when the value, or one inside it, exceeds 65535 octets.
  [[nodiscard]] static GooseResult<void> encodeDataValue(const GooseDataValue& value, Bytes& out);
};

}  // namespace goosestack
