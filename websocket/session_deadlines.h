// What one connection has to do by when. A plain value that is given the time.
#pragma once

#include <chrono>
#include <optional>

#include "websocket/websocket.h"

namespace tarnlink {

class SessionDeadlines {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Begins with the time for the handshake, and that for being admitted.
  SessionDeadlines(const WebSocketLimits& limits, Time now);

  void upgraded(Time now);
  void setStanding(Standing standing, Time now);
  /// The socket is closed then, whatever happens; the earliest of several counts.
  void closeBy(Time time);
  bool isClosing() const { return closeBy_.has_value(); }

  /// When to call due() next, unless something of the above happens. `lastRead` is when all was
  /// handled that the peer had sent.
  Time next(Time lastRead) const;

  enum class Due { nothing, ping, idleTimeout, handshakeTimeout, notAdmitted, close };
  /// While nobody listens, the peer's silence means nothing.
  Due due(Time now, Time lastRead, bool isListening);

 private:
  Time heard(Time lastRead) const { return std::max(lastHeard_, lastRead); }

  const WebSocketLimits limits_;
  Standing standing_ = Standing::stranger;
  Time admittedBy_;                                    // of a stranger
  std::chrono::steady_clock::duration timeToAdmit_{};  // left, while it waits
  std::optional<Time> upgradeBy_;                      // until it is done
  Time lastHeard_;
  std::optional<Time> pingedFor_;  // heard() when the last ping was sent
  std::optional<Time> closeBy_;
};

}  // namespace tarnlink
