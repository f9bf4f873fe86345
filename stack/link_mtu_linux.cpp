#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "stack/link_mtu.h"

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

}  // namespace goosestack
