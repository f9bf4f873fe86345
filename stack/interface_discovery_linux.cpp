// The link-layer addresses of Linux: getifaddrs(3) lists each interface once with family AF_PACKET
// and a sockaddr_ll (packet(7)).
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "goosestack/interface_discovery.h"

namespace goosestack {
namespace {

std::optional<MacAddress> macBytes(const sockaddr* address) {
  sockaddr_ll link{};
  std::memcpy(&link, address, sizeof link);
  MacAddress mac;
  // Other lengths are other link types: 20 for InfiniBand, 8 for FireWire, 0 for tunnels.
  if (link.sll_halen != mac.size()) return std::nullopt;
  std::copy_n(link.sll_addr, mac.size(), mac.begin());
  return mac;
}

}  // namespace

std::vector<LinkLayerEntry> InterfaceDiscovery::linkLayerEntries() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, &::freeifaddrs);

  std::vector<LinkLayerEntry> entries;
  for (const ifaddrs* item = first; item != nullptr; item = item->ifa_next) {
    if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_PACKET) continue;
    LinkLayerEntry entry;
    entry.name = item->ifa_name;
    entry.isLoopback = (item->ifa_flags & IFF_LOOPBACK) != 0;
    entry.isUp = (item->ifa_flags & IFF_UP) != 0;
    entry.supportsMulticast = (item->ifa_flags & IFF_MULTICAST) != 0;
    entry.mac = macBytes(item->ifa_addr);
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace goosestack
