// How many frames the simulation has sent, and when that is enough.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "stack/send_handle.h"

namespace tarnlink {

/// Safe from any thread.
class SendTally {
 public:
  /// `onEnd` is called when `limit` frames were sent or the interface has gone; perhaps repeatedly,
  /// from a sending thread: it must be quick.
  SendTally(std::optional<std::uint64_t> limit, std::function<void()> onEnd)
      : limit_(limit), onEnd_(std::move(onEnd)) {}

  /// False when the limit is taken up by frames sent or being sent.
  bool claim();
  /// The outcome of a claimed frame.
  void count(const goosestack::SendOutcome& outcome);
  /// A handle found so before it sent.
  void interfaceGone();

  std::uint64_t sent() const { return sent_; }
  bool isOver() const { return isInterfaceGone_ || (limit_ && sent_ >= *limit_); }
  bool isInterfaceGone() const { return isInterfaceGone_; }

  /// "Sent 12 frames; 3 could not be sent".
  std::string text() const;

 private:
  std::optional<std::uint64_t> limit_;
  std::function<void()> onEnd_;
  std::atomic<std::uint64_t> claimed_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> failed_{0};
  std::atomic<bool> isInterfaceGone_{false};
};

/// Handles of `source` whose frames are counted, and held back beyond the limit. The tally outlives
/// them.
std::shared_ptr<goosestack::SendHandleSource> countedSendHandles(
    std::shared_ptr<goosestack::SendHandleSource> source, SendTally& tally);

}  // namespace tarnlink
