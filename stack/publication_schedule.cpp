#include "stack/publication_schedule.h"

#include <algorithm>
#include <limits>

namespace goosestack {
namespace {

// The standard keeps 0 for "not yet published".
constexpr std::uint32_t kFirstStNum = 1;

}  // namespace

void PublicationSchedule::stateChange(const GoosePublishConfig& config) {
  end();
  if (config.initialStNum != 0) {
    currentStNum_ = config.initialStNum;
  } else if (!config.lockStNum) {
    const bool rollsOver = currentStNum_ == std::numeric_limits<std::uint32_t>::max();
    currentStNum_ = rollsOver ? kFirstStNum : currentStNum_ + 1;
  }
  currentSqNum_ = config.initialSqNum;
  lockSqNum_ = config.lockSqNum;
  profile_ = config.retransmissionProfile;
}

void PublicationSchedule::start(Instant stateChange) {
  index_ = 0;
  retransmission_.reset();
  heartbeat_.reset();
  if (!profile_.intervals.empty()) {
    retransmission_ = stateChange + std::chrono::milliseconds(profile_.intervals.front());
  }
  if (profile_.heartbeatInterval > 0) {
    heartbeat_ = stateChange + std::chrono::milliseconds(profile_.heartbeatInterval);
  }
}

void PublicationSchedule::end() {
  retransmission_.reset();
  heartbeat_.reset();
}

std::optional<PublicationSchedule::Instant> PublicationSchedule::nextDeadline() const {
  if (!heartbeat_ || (retransmission_ && *retransmission_ <= *heartbeat_)) return retransmission_;
  return heartbeat_;
}

std::uint32_t PublicationSchedule::nextSqNum() const {
  return lockSqNum_ ? currentSqNum_ : currentSqNum_ + 1;
}

std::optional<PublicationSchedule::Transmission> PublicationSchedule::takeDue(Instant now) {
  const auto deadline = nextDeadline();
  if (!deadline || *deadline > now) return std::nullopt;
  currentSqNum_ = nextSqNum();
  if (deadline == retransmission_) {
    passRetransmission(now);
    return Transmission::retransmission;
  }
  passHeartbeats(now);
  return Transmission::heartbeat;
}

void PublicationSchedule::passRetransmission(Instant now) {
  if (++index_ >= profile_.intervals.size()) return retransmission_.reset();
  const std::chrono::milliseconds interval(std::max<std::int64_t>(profile_.intervals[index_], 0));
  *retransmission_ += interval;
  if (*retransmission_ <= now) retransmission_ = now + interval;
}

void PublicationSchedule::passHeartbeats(Instant now) {
  const std::chrono::milliseconds period(profile_.heartbeatInterval);
  *heartbeat_ += ((now - *heartbeat_) / period + 1) * period;
}

}  // namespace goosestack
