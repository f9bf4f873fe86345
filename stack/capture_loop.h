// One thread that sits in pcap_dispatch and hands out what the kernel captured.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "goosestack/bytes.h"
#include "goosestack/capture_drops.h"
#include "goosestack/time_point.h"
#include "stack/pcap_access.h"

namespace goosestack {

/// Where a capture's frames go. Called on the capture thread alone; must not throw.
class CaptureSink {
 public:
  virtual ~CaptureSink() = default;
  /// One frame: its captured octets, borrowed until this returns, and its capture time.
  virtual void takeFrame(ByteView frame, TimePoint receivedAt) = 0;
  /// Nothing more is at hand right now, or kBurstLimit frames have been handed out. Whether there
  /// is room for more.
  virtual bool endBurst() = 0;
  /// Asked while there was no room. Meanwhile frames collect in the kernel's buffer.
  virtual bool hasRoom() = 0;
  /// The kernel has dropped frames. Told with the frames after them or while there is no room, at
  /// most once in kDropPause, and at the end; a link that falls silent is not asked again before
  /// the end.
  virtual void tellDrops(const CaptureDrops& drops) = 0;
  /// After the last frame, when the capture has died (its interface is gone, for example), with
  /// libpcap's text.
  virtual void tellDeath(std::string reason) = 0;
};

/// Owns the thread, and the handle until that ends.
class CaptureLoop {
 public:
  /// Bounds how long the first frame of a burst waits for the last, and how long a link that is
  /// never quiet keeps the loop from looking at the drops.
  static constexpr int kBurstLimit = 64;
  /// Asking costs 40 microseconds: libpcap reads the interface's counters from files as well.
  static constexpr std::chrono::seconds kDropPause{1};
  /// Between two questions whether there is room again. The kernel's buffer holds more than comes
  /// meanwhile, so that nothing is lost by asking late.
  static constexpr std::chrono::milliseconds kRoomPause{1};

  /// Starts the thread. Throws std::system_error when there is none.
  CaptureLoop(PcapHandle handle, std::unique_ptr<CaptureSink> sink);
  /// Breaks the loop and joins the thread: some milliseconds at most, on a silent link too.
  ~CaptureLoop();
  CaptureLoop(const CaptureLoop&) = delete;
  CaptureLoop& operator=(const CaptureLoop&) = delete;

  /// Makes the thread end and close the handle, soon. Does not wait. Any thread.
  void breakLoop();

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  void tellDropsWhenDue(Clock::time_point now);
  void tellDrops(Clock::time_point now, bool isLast);

  std::mutex lock_;  // Of the handle against being closed; the thread itself needs none to use it.
  PcapHandle handle_;
  const std::unique_ptr<CaptureSink> sink_;
  std::atomic<bool> isStopping_{false};
  Clock::time_point dropsAsked_ = Clock::now();
  std::uint64_t drops_ = 0;
  std::thread thread_;
};

}  // namespace goosestack
