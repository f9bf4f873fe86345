// Frames sent at a given rate into one end of a veth pair.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "stack/bytes.h"

namespace tarnlink::bench {

/// Sends without the kernel's queues, 64 frames a system call. One thread.
class FrameFlood {
 public:
  struct Sent {
    std::uint64_t frames = 0;
    double rate = 0;  ///< Frames a second, as it came about.
  };
  /// As fast as the machine sends.
  static constexpr double kFlatOut = 0;

  /// Throws std::system_error.
  explicit FrameFlood(const std::string& interface);
  ~FrameFlood();
  FrameFlood(const FrameFlood&) = delete;
  FrameFlood& operator=(const FrameFlood&) = delete;

  /// Sends for that long, `rate` frames a second in a burst every kTick. A sender that falls behind
  /// catches up.
  Sent run(ByteView frame, double rate, std::chrono::duration<double> time);
  void sendOne(ByteView frame);

  static constexpr std::chrono::microseconds kTick{250};

 private:
  int socket_;
};

}  // namespace tarnlink::bench
