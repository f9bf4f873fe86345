// idle_beast_server PORT: what a WebSocket server on Boost.Beast takes before it does anything.
// Ends when it is killed.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench/burst_server.h"

int main(int, char** argv) {
  const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
  const auto server = tarnlink::bench::makePlainBeastServer(port, {}, 0);
  std::puts("Listening");
  std::fflush(stdout);
  ::pause();
}
