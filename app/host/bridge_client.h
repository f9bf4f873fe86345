// What the desktop asks of a bridge in another process, over the bridge's own protocol.
#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <string>

namespace tarnlink {

/// Pairs with the bridge on this machine and makes an interface its active one; returns when the
/// bridge says that it is. The name must keep the rule of stack/interface_name.h. Blocks for up to
/// five seconds; the error is a text for the log.
boost::system::result<void, std::string> chooseInterface(std::uint16_t port,
                                                         const std::string& pairingCode,
                                                         const std::string& name);

}  // namespace tarnlink
