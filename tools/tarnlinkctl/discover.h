// Bridges that announce themselves on the local network.
#pragma once

#include <string>

#include "platform/dns_sd.h"
#include "tools/tarnlinkctl/bridge_session.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// The bridges that are found within the time, ordered by name.
CtlResult<std::vector<DnsSdInstance>> discoverBridges(std::chrono::milliseconds wait);

/// One line for people.
std::string bridgeLine(const DnsSdInstance& bridge);

/// {"name":TEXT,"host":TEXT,"addresses":[TEXT,...],"port":N}
std::string bridgeJson(const DnsSdInstance& bridge);

/// The options with the addresses and, unless one was given, the port of the bridge that is
/// announced under the name that `host` is. A name that no bridge has is the host's own: the
/// options stay as they are; only one that no host can have is an error. Addresses are never looked
/// for. Blocks while it looks, up to a few seconds.
CtlResult<CtlOptions> locateBridge(CtlOptions options);

}  // namespace tarnlink
