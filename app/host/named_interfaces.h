// The machine's interfaces by the names that users know them by.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "goosestack/interface_discovery.h"
#include "platform/interface_names.h"

namespace tarnlink {

/// Blocks up to kInterfaceNamesLimit for the names; any thread.
inline std::vector<goosestack::NetworkInterfaceInfo> listNamedInterfaces() {
  struct SystemNames final : goosestack::InterfaceNameSource {
    std::map<std::string, std::string> displayNames() override { return interfaceDisplayNames(); }
  } names;
  return goosestack::InterfaceDiscovery::listEthernetInterfaces(&names);
}

}  // namespace tarnlink
