// The largest frames that a link carries.
#pragma once

#include <optional>
#include <string>

namespace goosestack {

/// Ethernet header with one 802.1Q tag. Octets.
inline constexpr int kTaggedHeaderLength = 18;
inline constexpr int kPlainHeaderLength = 14;

/// The interface's MTU: payload octets behind the Ethernet header and tag. Nothing when there is
/// no such interface.
std::optional<int> linkMtu(const std::string& interface);

/// Octets of the largest tagged frame, check sequence excluded.
inline std::optional<int> largestFrame(const std::string& interface) {
  const auto mtu = linkMtu(interface);
  return mtu ? std::optional<int>(*mtu + kTaggedHeaderLength) : std::nullopt;
}

}  // namespace goosestack
