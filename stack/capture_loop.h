// One thread that sits in pcap_dispatch and hands out what the kernel captured.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "goosestack/bytes.h"
#include "goosestack/capture_drops.h"
#include "goosestack/time_point.h"
#include "stack/pcap_access.h"

namespace goosestack {

/// Owns its handle and its thread. Handlers run on that thread and must not throw.
class CaptureLoop {
 public:
  struct Handlers {
    /// Asked before each read. While it says no, frames collect in the kernel's buffer.
    std::function<bool()> hasRoom;
    /// One frame: its captured octets, borrowed until the handler returns, and its capture time.
    std::function<void(ByteView frame, TimePoint receivedAt)> onFrame;
    /// Nothing more is at hand right now, or kBurstLimit frames have been handed out.
    std::function<void()> onBurstEnd;
    /// The kernel has dropped frames. Told with the frames after them or while there is no room, at
    /// most once in kDropPause, and at the end; a link that falls silent is not asked again before
    /// the end.
    std::function<void(const CaptureDrops& drops)> onDrops;
    /// The thread is about to end, after the last frame: with libpcap's text when the capture has
    /// died (its interface is gone, for example), without one when the loop was broken.
    std::function<void(std::optional<std::string> death)> onEnd;
  };

  /// Bounds how long the first frame of a burst waits for the last, and how long a link that is
  /// never quiet keeps the loop from looking at the drops.
  static constexpr int kBurstLimit = 64;
  /// Asking costs 40 microseconds: libpcap reads the interface's counters from files as well.
  static constexpr std::chrono::seconds kDropPause{1};
  /// Between two questions whether there is room again. The kernel's buffer holds more than comes
  /// meanwhile, so that nothing is lost by asking late.
  static constexpr std::chrono::milliseconds kRoomPause{1};

  /// Starts the thread.
  CaptureLoop(PcapHandle handle, Handlers handlers);
  /// Breaks the loop, joins the thread, closes the handle.
  ~CaptureLoop();
  CaptureLoop(const CaptureLoop&) = delete;
  CaptureLoop& operator=(const CaptureLoop&) = delete;

  /// Makes the current or next pcap_dispatch return. Does not wait. Any thread.
  void breakLoop();

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  void tellDropsWhenDue(Clock::time_point now);
  void tellDrops(Clock::time_point now, bool isLast);

  PcapHandle handle_;
  Handlers handlers_;
  std::atomic<bool> isStopping_{false};
  Clock::time_point dropsAsked_ = Clock::now();
  std::uint64_t drops_ = 0;
  std::thread thread_;
};

}  // namespace goosestack
