// Sampled Values records (IEC 61850-9-2): payloads stay undecoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "goosestack/footprint.h"
#include "goosestack/mac_address.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// One captured SV frame.
struct SvCapturedFrame {
  Bytes pdu;           ///< All after the EtherType: SV header (APPID first), then the APDU.
  std::string dstMac;  ///< As formatMac() writes it.
  std::string srcMac;
  std::optional<std::uint16_t> vlanId;  ///< Absent when the frame was untagged.
  TimePoint receivedAt{};               ///< From the capture header.

  bool operator==(const SvCapturedFrame&) const = default;

  /// As GooseMessage has it.
  std::size_t footprint() const {
    return sizeof *this + heapOctets(pdu) + heapOctets(dstMac) + heapOctets(srcMac);
  }
};

/// How one SV payload is to be sent.
struct SvPublishConfig {
  std::string interface;
  MacAddress dstMac;
  std::uint16_t vlanId;       ///< 0 means untagged.
  std::uint8_t vlanPriority;  ///< 802.1Q priority of a tagged frame; 3 bits used.

  bool operator==(const SvPublishConfig&) const = default;
};

}  // namespace goosestack
