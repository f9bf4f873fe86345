// Frames into one end of a veth pair, at a pace of the bench's, and out of the other.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "goosestack/bytes.h"
#include "stack/pcap_access.h"

namespace tarnlink::bench {

/// The ends of the wire: the receivers' and the sender's.
inline constexpr const char* kBus = "bus0";
inline constexpr const char* kIed = "ied0";

/// Sends without the kernel's queues. One thread. Throws std::system_error.
class WireSender {
 public:
  static constexpr unsigned kMostAtOnce = 64;

  explicit WireSender(const std::string& interface);
  ~WireSender();
  WireSender(const WireSender&) = delete;
  WireSender& operator=(const WireSender&) = delete;

  /// The same frame so many times, kMostAtOnce at most, with one system call.
  void send(goosestack::ByteView frame, unsigned count = 1);

 private:
  int socket_;
};

/// Calls `step` with 0, 1, ... evenly spread. Late ones follow at once, but after a stall of the
/// bench itself no flood makes up for it.
template <class Step>
void paced(std::size_t count, std::chrono::nanoseconds spacing, Step step) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kStall{5};
  auto due = Clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    std::this_thread::sleep_until(due);
    step(i);
    due = std::max(due, Clock::now() - kStall) + spacing;
  }
}

/// pcap_dispatch on a thread of its own, with the bridge's options; `take` is its callback. Throws
/// when the interface cannot be opened.
class CaptureThread {
 public:
  CaptureThread(const std::string& interface, std::function<void(goosestack::ByteView)> take);
  ~CaptureThread();
  CaptureThread(const CaptureThread&) = delete;
  CaptureThread& operator=(const CaptureThread&) = delete;

 private:
  std::function<void(goosestack::ByteView)> take_;
  goosestack::PcapHandle handle_;
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

}  // namespace tarnlink::bench
