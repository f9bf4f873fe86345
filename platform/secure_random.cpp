#include "platform/secure_random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tarnlink {

std::uint32_t secureRandom32() {
  std::uint32_t bits = 0;
  // Up to 256 octets are never cut short once the source is seeded (getrandom(2)); a signal can
  // only interrupt the wait before that.
  while (::getrandom(&bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) {
    if (errno == EINTR) continue;
    std::perror("getrandom");
    std::abort();
  }
  return bits;
}

}  // namespace tarnlink
