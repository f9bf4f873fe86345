#include <linux/if_packet.h>
#include <sys/socket.h>

#include "stack/bound_interface.h"

namespace goosestack {

int boundInterface(int socket) {
  sockaddr_ll address{};
  socklen_t size = sizeof address;
  const int result = ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return result == 0 ? address.sll_ifindex : -1;
}

}  // namespace goosestack
