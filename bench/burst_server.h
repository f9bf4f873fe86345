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

/// Processor time of a thread that still runs.
inline std::chrono::nanoseconds cpuTimeOf(std::thread& thread) {
  clockid_t clock{};
  if (pthread_getcpuclockid(thread.native_handle(), &clock) != 0) {
    throw std::runtime_error("no clock of the server's thread");
  }
  return timeOf(clock);
}

class BurstServer {
 public:
  virtual ~BurstServer() = default;

  /// Sends the first `frames` frames, kBurst at most, to every client. Returns at once. From one
  /// thread, which is not the server's.
  virtual void feed(std::size_t frames) = 0;
  /// Processor time of the server's thread.
  virtual std::chrono::nanoseconds cpuTime() = 0;
};

/// Connected over loopback on that port. Throw std::runtime_error or std::system_error.
std::unique_ptr<BurstServer> makeTransportServer(std::uint16_t port, const Frames& frames);
std::unique_ptr<BurstServer> makeEpollServer(std::uint16_t port, const Frames& frames);
std::unique_ptr<BurstServer> makePlainBeastServer(std::uint16_t port, const Frames& frames);

/// The plain Beast server on the calling thread, for ever; says "Listening".
void runIdleBeastServer(std::uint16_t port);

}  // namespace tarnlink::bench
