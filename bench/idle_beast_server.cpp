// idle_beast_server PORT: what a WebSocket server on Boost.Beast takes before it does anything.
// Ends when it is killed.
#include <cstdlib>

#include "bench/burst_server.h"

int main(int, char** argv) {
  tarnlink::bench::runIdleBeastServer(static_cast<std::uint16_t>(std::atoi(argv[1])));
}
