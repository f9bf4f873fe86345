// The payload of a Sampled Values frame (IEC 61850-9-2, 8.5; IEC 61869-9): an 8-octet header, then
// the savPdu element (tag 0x60) in BER with its ASDUs. Decoding is lenient about optional fields,
// order and unknown tags, and strict about the five mandatory fields of each ASDU.
//
//   octets 0-1  APPID                         seqASDU 0xA2 holds, each in 0x30:
//   octets 2-3  8 + size of the element         0x80 svID      0x85 smpSynch
//   octets 4-5  reserved 1, top bit: simulated  0x81 datSet    0x86 smpRate
//   octets 6-7  reserved 2                      0x82 smpCnt    0x87 sample
//   octet 8     0x60, length, then              0x83 confRev   0x88 smpMod
//               0x80 noASDU, 0xA2 seqASDU       0x84 refrTm
//
// All operations are pure: safe from any thread on distinct objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "goosestack/bytes.h"
#include "goosestack/goose_error.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// One ASDU. Texts and samples borrow from the payload that was parsed and hold only as long as its
/// octets stay in place.
struct SvAsdu {
  std::string_view svId{};
  std::optional<std::string_view> datSet{};
  std::uint16_t smpCnt = 0;
  std::uint32_t confRev = 0;
  std::optional<TimePoint> refrTm{};
  std::uint8_t smpSynch = 0;
  std::optional<std::uint16_t> smpRate{};  ///< In the unit that smpMod says.
  /// 0: samples per nominal period (also where absent), 1: samples per second, 2: seconds per
  /// sample.
  std::optional<std::uint16_t> smpMod{};
  ByteView samples{};
};

/// A decoded payload.
struct SvPdu {
  /// ASDUs of one frame that are decoded; further ones are left out. A frame of 1,500 octets holds
  /// 60 of the smallest that carry a name and a sample.
  static constexpr std::size_t kMaxAsdus = 256;

  std::uint16_t appId = 0;
  std::uint16_t length = 0;  ///< Octets from the header's start to the PDU's end, as sent.
  std::uint16_t reserved1 = 0;
  std::uint16_t reserved2 = 0;
  std::uint32_t noAsdu = 0;  ///< As sent; not compared with `asdus`.
  std::vector<SvAsdu> asdus;

  bool simulated() const { return (reserved1 & 0x8000) != 0; }

  /// Decodes a payload into an existing PDU whose storage is reused, so that a steady flow
  /// allocates nothing; octets behind the PDU element (Ethernet padding) are ignored. Fails with
  /// parseError: "Too short for SV header", "Expected SV PDU tag 0x60, got ...", "Missing seqASDU",
  /// "Malformed ASDU ..." or "Missing mandatory SV fields: ...". After a failure `pdu` has no
  /// ASDUs. Texts that are not UTF-8 become empty.
  static GooseResult<void> parseInto(ByteView rawPayload, SvPdu& pdu);
};

}  // namespace goosestack
