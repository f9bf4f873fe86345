#include "websocket/session_deadlines.h"

#include <algorithm>

namespace tarnlink {

SessionDeadlines::SessionDeadlines(const WebSocketLimits& limits, Time now)
    : limits_(limits),
      admittedBy_(now + limits.strangerTime),
      upgradeBy_(now + limits.handshake),
      lastHeard_(now) {}

void SessionDeadlines::upgraded(Time now) {
  upgradeBy_.reset();
  lastHeard_ = now;
}

void SessionDeadlines::setStanding(Standing standing, Time now) {
  if (standing_ == Standing::stranger) timeToAdmit_ = admittedBy_ - now;
  admittedBy_ = now + timeToAdmit_;
  standing_ = standing;
}

void SessionDeadlines::closeBy(Time time) {
  closeBy_ = std::min(closeBy_.value_or(time), time);
}

SessionDeadlines::Time SessionDeadlines::next(Time lastRead) const {
  if (closeBy_) return *closeBy_;
  const bool isPinged = pingedFor_ == heard(lastRead);
  const auto silence = heard(lastRead) + (isPinged ? limits_.idle : limits_.idle / 2);
  const auto next = upgradeBy_.value_or(silence);
  return standing_ == Standing::stranger ? std::min(next, admittedBy_) : next;
}

SessionDeadlines::Due SessionDeadlines::due(Time now, Time lastRead, bool isListening) {
  if (now < next(lastRead)) return Due::nothing;
  if (closeBy_) return Due::close;
  if (standing_ == Standing::stranger && admittedBy_ <= now) return Due::notAdmitted;
  if (upgradeBy_) return Due::handshakeTimeout;
  if (!isListening) {
    lastHeard_ = now;
    return Due::nothing;
  }
  if (pingedFor_ == heard(lastRead)) return Due::idleTimeout;
  pingedFor_ = heard(lastRead);
  return Due::ping;
}

}  // namespace tarnlink
