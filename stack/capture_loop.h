// One thread that sits in pcap_dispatch and hands out what the kernel captured.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "stack/bytes.h"
#include "stack/pcap_access.h"
#include "stack/time_point.h"

namespace tarnlink {

/// Owns its handle and its thread. Handlers run on that thread and must not throw.
class CaptureLoop {
 public:
  struct Handlers {
    /// One frame: its captured octets, borrowed until the handler returns, and its capture time.
    std::function<void(ByteView frame, TimePoint receivedAt)> onFrame;
    /// pcap_dispatch has returned: nothing more is at hand right now.
    std::function<void()> onBurstEnd;
    /// The thread is about to end, after the last frame: with libpcap's text when the capture has
    /// died (its interface is gone, for example), without one when the loop was broken.
    std::function<void(std::optional<std::string> death)> onEnd;
  };

  /// Starts the thread.
  CaptureLoop(PcapHandle handle, Handlers handlers);
  /// Breaks the loop, joins the thread, closes the handle.
  ~CaptureLoop();
  CaptureLoop(const CaptureLoop&) = delete;
  CaptureLoop& operator=(const CaptureLoop&) = delete;

  /// Makes the current or next pcap_dispatch return. Does not wait. Any thread.
  void breakLoop();

 private:
  void run();

  PcapHandle handle_;
  Handlers handlers_;
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

}  // namespace tarnlink
