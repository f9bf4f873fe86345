// tshark, live on the wire: what a user would pick instead of the bridge.
#pragma once

#include <memory>
#include <string>

#include "bench/wire_traffic.h"
#include "bench/background_process.h"

namespace tarnlink::bench {

class TsharkRun {
 public:
  /// More than tshark takes; what it cannot take at once waits in its temporary file.
  static constexpr double kRate = 20'000;  // Frames a second.
  static constexpr std::chrono::milliseconds kBurst{300};

  /// Nothing where tshark is not installed or cannot capture.
  static std::unique_ptr<TsharkRun> start(const std::string& interface, FrameFlood& flood);

  /// Frames a second from the first sent to the last decoded. Throws std::runtime_error.
  double sustainedRate(ByteView frame);

 private:
  TsharkRun(std::unique_ptr<BackgroundProcess> process, FrameFlood& flood)
      : process_(std::move(process)), flood_(flood) {}
  /// False when the time is up.
  bool waitForPackets(std::uint64_t count, std::chrono::milliseconds patience);

  std::unique_ptr<BackgroundProcess> process_;
  FrameFlood& flood_;
  WakeSignal never_;
  std::string line_;
};

}  // namespace tarnlink::bench
