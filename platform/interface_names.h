// Port to the names that users know network interfaces by.
#pragma once

#include <chrono>
#include <map>
#include <string>

namespace tarnlink {

/// No list of interfaces waits longer than this for its names.
inline constexpr std::chrono::milliseconds kInterfaceNamesLimit{200};

/// Display names by interface name: the name of the network connection that is active on it, else
/// the model of the hardware, else the interface is absent. Blocks up to `limit`; what has not
/// answered by then is left out. Never fails; safe from any thread.
std::map<std::string, std::string> interfaceDisplayNames(
    std::chrono::milliseconds limit = kInterfaceNamesLimit);

}  // namespace tarnlink
