#include "goosestack/interface_discovery.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace goosestack {
namespace {

// Loopback, tunnels, bridges, peer-to-peer radio and virtual-machine links. The last three are
// Linux's: without them the container bridge docker0 would sort before eth0. "veth" is no member,
// because a veth pair is how a process bus is simulated.
constexpr std::string_view kSkippedPrefixes[] = {
    "lo",     "gif",   "stf",    "utun", "awdl",   "llw",   "ap",  "anpi",
    "bridge", "ipsec", "vmenet", "vnic", "docker", "virbr", "br-",
};

constexpr MacAddress kNoMac{};

}  // namespace

bool InterfaceDiscovery::isSkippedName(std::string_view name) {
  return std::any_of(std::begin(kSkippedPrefixes), std::end(kSkippedPrefixes),
                     [name](std::string_view prefix) { return name.starts_with(prefix); });
}

std::string InterfaceDiscovery::fallbackDisplayName(std::string_view name) {
  std::string text(name);
  if (name.starts_with("en")) return "Ethernet (" + text + ")";
  if (name.starts_with("pdp_ip")) return "Cellular (" + text + ")";
  return text;
}

std::vector<NetworkInterfaceInfo> InterfaceDiscovery::selectEthernetInterfaces(
    std::span<const LinkLayerEntry> entries,
    const std::map<std::string, std::string>& displayNames) {
  std::vector<NetworkInterfaceInfo> list;
  std::set<std::string_view> taken;
  for (const LinkLayerEntry& entry : entries) {
    if (entry.isLoopback || isSkippedName(entry.name)) continue;
    if (!taken.insert(entry.name).second) continue;
    if (!entry.mac || *entry.mac == kNoMac) continue;
    const auto displayName = displayNames.find(entry.name);
    NetworkInterfaceInfo info;
    info.name = entry.name;
    info.displayName =
        displayName != displayNames.end() ? displayName->second : fallbackDisplayName(entry.name);
    info.isUp = entry.isUp;
    info.macAddress = formatMac(*entry.mac);
    info.supportsMulticast = entry.supportsMulticast;
    list.push_back(std::move(info));
  }
  std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
    const bool aDown = !a.isUp;
    const bool bDown = !b.isUp;
    return std::tie(aDown, a.name) < std::tie(bDown, b.name);
  });
  return list;
}

std::vector<NetworkInterfaceInfo> InterfaceDiscovery::listEthernetInterfaces(
    InterfaceNameSource* names) {
  const auto entries = linkLayerEntries();
  if (entries.empty()) return {};
  if (names == nullptr) return selectEthernetInterfaces(entries, {});
  return selectEthernetInterfaces(entries, names->displayNames());
}

std::optional<MacAddress> InterfaceDiscovery::macAddressBytes(std::string_view name) {
  const auto entries = linkLayerEntries();
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [name](const auto& entry) { return entry.name == name; });
  if (found == entries.end()) return std::nullopt;
  return found->mac;
}

}  // namespace goosestack
