// How the bridge is called on the network.
#pragma once

namespace tarnlink {

/// The DNS-SD service type (RFC 6763, section 7) that bridges announce and clients look for.
inline constexpr const char* kBridgeServiceType = "_tarnlink._tcp.";

}  // namespace tarnlink
