// Sends a stream of Sampled Values, each frame at its own moment.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "stack/send_handle.h"
#include "tools/tarnlink_ied/sampled_values.h"

namespace tarnlink {

/// When sample 0, 1, 2, ... is due. A plain value; every due time is reckoned from the start.
class SampleClock {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// A sender that is later than this leaves samples out; before, it catches up with all of them.
  static constexpr std::chrono::seconds kLongestLag{1};

  SampleClock(Instant start, std::uint32_t rate) : start_(start), rate_(rate) {}

  Instant due(std::uint64_t number) const;
  /// The sample to send next at `now` when `number` is the one after the last.
  std::uint64_t next(std::uint64_t number, Instant now) const;

 private:
  Instant start_;
  std::uint32_t rate_;
};

/// Sends from construction to destruction, on a thread of its own that asks for real-time
/// scheduling. Frames that fail are passed over.
class SvSender {
 public:
  SvSender(std::unique_ptr<goosestack::SendHandle> handle, SampledValues values);
  ~SvSender();
  SvSender(const SvSender&) = delete;
  SvSender& operator=(const SvSender&) = delete;

 private:
  void run();

  std::unique_ptr<goosestack::SendHandle> handle_;
  SampledValues values_;
  std::atomic<bool> isEnding_{false};
  std::thread thread_;
};

}  // namespace tarnlink
