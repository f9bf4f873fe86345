#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "stack/network_link.h"

namespace goosestack {

std::optional<int> linkMtu(const std::string& interface) {
  if (interface.empty() || interface.size() >= IFNAMSIZ) return std::nullopt;
  const int query = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (query < 0) return std::nullopt;
  ifreq request{};
  std::memcpy(request.ifr_name, interface.data(), interface.size());
  const bool found = ::ioctl(query, SIOCGIFMTU, &request) == 0;
  ::close(query);
  return found ? std::optional<int>(request.ifr_mtu) : std::nullopt;
}

int boundInterface(int socket) {
  sockaddr_ll address{};
  socklen_t size = sizeof address;
  const int result = ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return result == 0 ? address.sll_ifindex : -1;
}

void setSocketPriority(int socket, std::uint8_t priority) {
  // 7 takes CAP_NET_RAW (CAP_NET_ADMIN before Linux 5.18), which a sender of raw frames has.
  const int value = priority & 7;  // 802.1p has three bits.
  (void)::setsockopt(socket, SOL_SOCKET, SO_PRIORITY, &value, sizeof value);
}

}  // namespace goosestack
