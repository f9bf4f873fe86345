// When one GOOSE publication sends, and under which numbers (IEC 61850-8-1: one frame at
// the state change, retransmissions at growing intervals, a steady heartbeat).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "goosestack/goose_publish_config.h"

namespace goosestack {

/// A plain value without a clock: it knows only the times that it is given.
///
/// The retransmission chain and the heartbeat run side by side, both from the state change. Every
/// deadline is reckoned from the deadline before it, so that lateness never adds up. After a stall
/// each of the two sends one frame at once. Heartbeats that were missed are skipped without taking
/// sequence numbers, and the next one is where it would have been without the stall. Of the
/// retransmissions all are sent: where the next one's deadline has passed as well, it follows at
/// its interval from now.
class PublicationSchedule {
 public:
  using Clock = std::chrono::steady_clock;
  using Instant = Clock::time_point;

  enum class Transmission { retransmission, heartbeat };

  /// The numbers of the frame sent last, or about to be sent after stateChange(). They survive the
  /// publication and are counted on by the next one.
  std::uint32_t currentStNum() const { return currentStNum_; }
  std::uint32_t currentSqNum() const { return currentSqNum_; }

  /// Ends what runs and numbers the state-change frame: `initialStNum` where it is not 0, else the
  /// number after the last one (after 4294967295 comes 1) unless `lockStNum`; `initialSqNum`.
  void stateChange(const GoosePublishConfig& config);

  /// The state-change frame leaves now: all deadlines count from here.
  void start(Instant stateChange);

  /// No more deadlines. The numbers remain.
  void end();

  /// Nothing when no frame is to come.
  std::optional<Instant> nextDeadline() const;

  /// The sequence number of the next frame, whichever it will be: one more (after 4294967295 comes
  /// 0), or the same when it is locked.
  std::uint32_t nextSqNum() const;

  /// Takes the frame that is due at `now`, which counts the sequence number on; nothing when none
  /// is. Called again at the same `now` it gives the second one when both kinds are due: the one of
  /// the earlier deadline comes first, and of equal ones the retransmission.
  std::optional<Transmission> takeDue(Instant now);

 private:
  void passRetransmission(Instant now);
  void passHeartbeats(Instant now);

  std::uint32_t currentStNum_ = 0;
  std::uint32_t currentSqNum_ = 0;
  bool lockSqNum_ = false;
  RetransmissionProfile profile_;
  std::size_t index_ = 0;  // Of the retransmission to come, in the profile's intervals.
  std::optional<Instant> retransmission_;
  std::optional<Instant> heartbeat_;
};

}  // namespace goosestack
