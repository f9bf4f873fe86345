// Which Ethernet-like interfaces the machine has, and their hardware addresses.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "goosestack/mac_address.h"
#include "goosestack/network_interface_info.h"

namespace goosestack {

/// Where user-visible interface names come from; the entry program brings one. Safe from any
/// thread; may block for as long as its own limit allows.
class InterfaceNameSource {
 public:
  virtual ~InterfaceNameSource() = default;
  /// Display names by interface name; interfaces without one are absent.
  virtual std::map<std::string, std::string> displayNames() = 0;
};

/// One link-layer entry of the system's interface address list.
struct LinkLayerEntry {
  std::string name;
  bool isLoopback = false;
  bool isUp = false;
  bool supportsMulticast = false;
  std::optional<MacAddress> mac;  ///< Nothing when the address is no 6-octet one.
};

/// Stateless; every operation is synchronous and safe from any thread.
class InterfaceDiscovery {
 public:
  InterfaceDiscovery() = delete;

  /// Up before down, then by name. Without a name source (nullptr) all display names are fallbacks
  /// and the call does not block. Empty when the system's list cannot be read.
  static std::vector<NetworkInterfaceInfo> listEthernetInterfaces(InterfaceNameSource* names);

  /// Nothing when there is no such interface, or it has no 6-octet address.
  static std::optional<MacAddress> macAddressBytes(std::string_view name);

  /// "Ethernet (en5)" for en5, "Cellular (pdp_ip0)" for pdp_ip0, any other name unchanged.
  static std::string fallbackDisplayName(std::string_view name);

  /// True for names of virtual interfaces that never carry process-bus traffic.
  static bool isSkippedName(std::string_view name);

  /// What listEthernetInterfaces() makes of the system's entries: loopback, skipped names and
  /// entries without a MAC (or with an all-zero one) left out, the first entry of a name taken.
  static std::vector<NetworkInterfaceInfo> selectEthernetInterfaces(
      std::span<const LinkLayerEntry> entries,
      const std::map<std::string, std::string>& displayNames);

 private:
  /// The system's link-layer entries in list order; empty when they cannot be read. One
  /// implementation a system.
  static std::vector<LinkLayerEntry> linkLayerEntries();
};

}  // namespace goosestack
