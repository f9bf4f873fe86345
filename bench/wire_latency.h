// Times from the wire to whoever receives, at 1,000 frames a second.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "bench/bridge_under_load.h"
#include "stack/bytes.h"

namespace tarnlink::bench {

/// In microseconds, over all frames of one run.
struct Latency {
  double p50 = 0;
  double p99 = 0;

  static Latency of(std::vector<double> microseconds);
};

/// Sender and receiver share a process and its clock. One run takes a second; a frame that does not
/// arrive throws std::runtime_error.
class LatencyRun {
 public:
  static constexpr int kFrames = 1'000;
  static constexpr std::chrono::milliseconds kSpacing{1};

  /// `bus` and `ied` are the ends of the wire.
  LatencyRun(std::string bus, std::string ied);

  /// From handing a frame to the kernel to holding its event's text in a client.
  Latency wireToClient(const BridgeUnderLoad& bridge);
  /// From handing a frame to the kernel to the callback of an immediate-mode capture.
  Latency wireToCapture();
  /// A message of an event's size over a loopback connection and back.
  static Latency loopbackRoundTrip();

 private:
  std::string bus_;
  std::string ied_;
  std::vector<Bytes> frames_;
};

}  // namespace tarnlink::bench
