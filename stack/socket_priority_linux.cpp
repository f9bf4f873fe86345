#include <sys/socket.h>

#include "stack/socket_priority.h"

namespace goosestack {

void setSocketPriority(int socket, std::uint8_t priority) {
  // 7 takes CAP_NET_RAW (CAP_NET_ADMIN before Linux 5.18), which a sender of raw frames has.
  const int value = priority & 7;  // 802.1p has three bits.
  (void)::setsockopt(socket, SOL_SOCKET, SO_PRIORITY, &value, sizeof value);
}

}  // namespace goosestack
