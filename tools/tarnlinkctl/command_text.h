// The commands of the protocol as tarnlinkctl sends them. What is absent is left out: the bridge
// knows its own defaults.
#pragma once

#include <string>
#include <string_view>

#include "client/bridge_client.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

BridgeClient::Command commandOf(const SubscribeGooseCommand& command);
BridgeClient::Command commandOf(const SubscribeSvCommand& command);
BridgeClient::Command commandOf(const PublishCommand& command);
BridgeClient::Command commandOf(const UnpublishCommand& command);
BridgeClient::Command commandOf(const PublishSvCommand& command);

/// Where IED/LLN0$GO$name has its dataset unless told otherwise: IED/LLN0$name (IEC 61850-8-1 puts
/// the functional constraint between the two).
std::string defaultDataSetRef(std::string_view goCBRef);

}  // namespace tarnlink
