// Sampled Values frames (IEC 61850-9-2): the envelope of stack/ethernet_frame.h with EtherType
// 0x88BA. The payload - SV header (APPID, length, two reserved words of 2 octets each), then the
// APDU - stays undecoded.
#pragma once

#include <cstdint>
#include <optional>

#include "goosestack/bytes.h"
#include "goosestack/mac_address.h"

namespace goosestack {

struct ParsedSvFrame {
  MacAddress dstMac{};
  MacAddress srcMac{};
  std::optional<std::uint16_t> vlanId;  ///< Present when the frame is tagged.
  /// From the SV header to the end of the frame. Borrows from the frame that was parsed and holds
  /// only as long as its octets stay in place.
  ByteView pdu;
};

/// Nothing when the frame is truncated or no SV frame behind at most one tag. Pure.
std::optional<ParsedSvFrame> parseSvFrame(ByteView frame);

/// A whole frame, unpadded; tag and addresses as EthernetFrame::build writes them. Pure.
Bytes buildSvFrame(ByteView dstMac, ByteView srcMac, std::uint16_t vlanId,
                   std::uint8_t vlanPriority, ByteView pdu);

}  // namespace goosestack
