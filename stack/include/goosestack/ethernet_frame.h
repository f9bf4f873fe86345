// The layer-2 envelope of process-bus frames: addresses, at most one IEEE 802.1Q tag, EtherType.
// Neither the frame check sequence nor padding to the Ethernet minimum is handled here.
//
//   octets  untagged           tagged
//   0-5     destination        destination
//   6-11    source             source
//   12-13   EtherType          0x8100
//   14-15   payload from here  TCI: priority (3 bits), CFI/DEI (1), VLAN identifier (12)
//   16-17                      EtherType
//   18-                        payload
#pragma once

#include <cstdint>
#include <optional>

#include "goosestack/bytes.h"
#include "goosestack/mac_address.h"

namespace goosestack {

inline constexpr std::uint16_t kEtherTypeGoose = 0x88B8;
inline constexpr std::uint16_t kEtherTypeSv = 0x88BA;
inline constexpr std::uint16_t kEtherTypeVlan = 0x8100;  // The 802.1Q tag protocol identifier.

struct ParsedEthernetFrame {
  MacAddress dstMac{};
  MacAddress srcMac{};
  std::optional<std::uint16_t> vlanId;       ///< 12 bits; present when the frame is tagged.
  std::optional<std::uint8_t> vlanPriority;  ///< 3 bits; present when the frame is tagged.
  std::uint16_t etherType = 0;               ///< The one behind the tag.
  /// All after the EtherType, padding included. Borrows from the frame that was parsed and holds
  /// only as long as its octets stay in place.
  ByteView payload;
};

/// Stateless; pure, safe from any thread.
class EthernetFrame {
 public:
  EthernetFrame() = delete;

  /// Nothing when the frame is truncated or of another EtherType, a second tag included.
  static std::optional<ParsedEthernetFrame> parse(ByteView frame,
                                                  std::uint16_t etherType = kEtherTypeGoose);

  /// A whole frame, unpadded. `vlanId` 0 means no tag (a priority tag cannot be written); of
  /// `vlanPriority` the low 3 bits and of `vlanId` the low 12 count, CFI/DEI is 0. The addresses
  /// are written as given; callers pass 6 octets each.
  static Bytes build(ByteView dstMac, ByteView srcMac, std::uint16_t vlanId,
                     std::uint8_t vlanPriority, ByteView payload,
                     std::uint16_t etherType = kEtherTypeGoose);
};

}  // namespace goosestack
