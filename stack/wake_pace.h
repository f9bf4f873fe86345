// How often a thread lets single frames wake it.
#pragma once

#include <chrono>

namespace tarnlink {

/// Waking costs a multiple of the work for one message. So a thread that hardly had to wait for its
/// last burst lets the next one collect; after a quiet moment a message goes on at once. A plain
/// value that is given the time.
class WakePace {
 public:
  using Clock = std::chrono::steady_clock;

  /// Messages come fast when the wait for the last burst was shorter than this: above 2,000 a
  /// second.
  static constexpr std::chrono::microseconds kQuick{500};
  /// How long they collect then: what the pace adds to a message's latency at most. Half as long
  /// cost about a quarter more CPU at 20,000 messages a second to ten clients.
  static constexpr std::chrono::microseconds kCollect{1'000};

  explicit WakePace(Clock::time_point now) : waitingSince_(now) {}

  /// A burst has been dealt with. The time until which the next one is to collect; `now` for no
  /// pause.
  Clock::time_point next(Clock::time_point now) {
    const bool isFast = now - waitingSince_ < kQuick;
    waitingSince_ = isFast ? now + kCollect : now;
    return waitingSince_;
  }

 private:
  Clock::time_point waitingSince_;
};

}  // namespace tarnlink
