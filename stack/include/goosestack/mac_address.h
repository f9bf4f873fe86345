// IEEE 802 MAC addresses and the one text form in which the bridge writes them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "goosestack/bytes.h"

namespace goosestack {

/// Six octets in wire order.
using MacAddress = std::array<std::uint8_t, 6>;

/// Two upper-case hexadecimal digits an octet, joined by ":" (01:0C:CD:01:00:01); no octets give
/// the empty text.
std::string formatMac(ByteView octets);

/// The same into an existing text, whose storage is reused.
void formatMacInto(ByteView octets, std::string& text);

}  // namespace goosestack
