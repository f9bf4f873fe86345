// A server under test: on one thread of its own it sends bursts of the same text frames to all its
// clients.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/stopwatch.h"
#include "websocket/text_frame.h"

namespace tarnlink::bench {

/// Frames of one burst at most, and buffers of one sendmsg of the bare server.
inline constexpr std::size_t kBurst = 64;

/// What all servers send: kBurst frames of one size, encoded once.
using Frames = std::vector<SharedTextFrame>;

class BurstServer {
 public:
  virtual ~BurstServer() = default;

  /// Sends the first `frames` frames, kBurst at most, to every client. Returns at once. From one
  /// thread, which is not the server's.
  virtual void feed(std::size_t frames) = 0;

  /// Processor time of the server's thread.
  std::chrono::nanoseconds cpuTime() {
    clockid_t clock{};
    if (pthread_getcpuclockid(thread_.native_handle(), &clock) != 0) {
      throw std::runtime_error("no clock of the server's thread");
    }
    return timeOf(clock);
  }

 protected:
  std::thread thread_;  ///< To be joined by the server's destructor.
};

/// Listens over loopback on that port, for so many clients. Throws std::runtime_error or
/// std::system_error.
using MakeServer = std::unique_ptr<BurstServer>(std::uint16_t port, const Frames& frames,
                                                std::size_t clients);
MakeServer makeTransportServer;
MakeServer makeBareServer;
MakeServer makePlainBeastServer;

}  // namespace tarnlink::bench
