// What the system says of a link and of the packet sockets bound to it. One source per system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace goosestack {

/// Ethernet header with and without one 802.1Q tag. Octets.
inline constexpr int kTaggedHeaderLength = 18;
inline constexpr int kPlainHeaderLength = 14;

/// The interface's MTU: payload octets behind the Ethernet header and tag. Nothing when there is
/// no such interface.
std::optional<int> linkMtu(const std::string& interface);

/// The index of the interface on which a packet socket sends; -1 when that has gone.
int boundInterface(int socket);

/// 802.1p priority 0 to 7 of what a socket sends, as the network stack sees it. Where the system
/// refuses it, frames leave with the priority they had: a lesser fault than not sending.
void setSocketPriority(int socket, std::uint8_t priority);

}  // namespace goosestack
