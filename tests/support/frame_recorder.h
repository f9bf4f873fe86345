// What arrives on an interface, with the kernel's time stamps.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "goosestack/bytes.h"
#include "stack/pcap_access.h"

namespace tarnlink::test {

struct RecordedFrame {
  goosestack::Bytes octets;
  std::chrono::nanoseconds time{};  ///< Since 1970, when the kernel took the frame in.
};

/// The kernel records from construction on, without a thread of this process. Frames sent on the
/// interface itself do not count.
class FrameRecorder {
 public:
  /// `filter` is a libpcap filter; an empty one takes everything. Throws std::runtime_error.
  explicit FrameRecorder(const std::string& interface, const std::string& filter = "");

  /// All frames so far, in order; returns as soon as there are `count` or the time is up.
  const std::vector<RecordedFrame>& frames(
      std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5));
  void clear();

 private:
  void drain();

  goosestack::PcapHandle handle_;
  std::vector<RecordedFrame> frames_;
};

}  // namespace tarnlink::test
