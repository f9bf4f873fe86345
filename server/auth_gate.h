// How fast wrong pairing codes may be tried.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "server/client_id.h"

namespace tarnlink {

/// One bucket of tokens for all clients: a wrong code costs one, a right one nothing.
struct AuthDelay {
  int burst = 10;                           ///< Tokens of a full bucket, at least 1.
  std::chrono::milliseconds refill{1'000};  ///< For one token.
};

/// Decides whose attempt may be compared next. A plain value that is told the time. An attempt can
/// only be told from a guess by comparing it, so each waits for a token, and gives it back when the
/// code was right. Who guesses must not keep out who knows the code: attempts are taken by
/// peers, the one longest not taken first, however many attempts or connections it has; those
/// of one peer by the fewest wrong codes on their connections, then by arrival.
class AuthGate {
 public:
  using Clock = std::chrono::steady_clock;

  /// Attempts that may wait. With one more, one of the peer that has most is refused; among equals
  /// the one that would be taken last.
  static constexpr std::size_t kMaxWaiting = 64;

  /// Peers of which is remembered when they were taken last; with more, all are taken for new.
  static constexpr std::size_t kMaxPeers = 1024;

  explicit AuthGate(AuthDelay delay) : delay_(delay) {}

  /// One attempt a client at a time. Gives the client that is refused, this one or another.
  std::optional<ClientId> enter(const ClientId& client, std::string peer, Clock::time_point now);

  /// Takes a token for the attempt that is next; nothing when none waits or there is no token.
  std::optional<ClientId> next(Clock::time_point now);

  /// What the comparison gave, after next().
  void tell(const ClientId& client, bool isRight);

  /// The client has been removed.
  void leave(const ClientId& client);

  /// When there is a token for those who wait; nothing when nobody does.
  std::optional<Clock::time_point> due() const;

  /// The bucket is full and nobody waits.
  bool isQuiet(Clock::time_point now) const { return waiting_.empty() && fullAt_ <= now; }

 private:
  struct Attempt {
    ClientId client;
    std::string peer;
    std::uint64_t arrival;
  };
  /// Taken in ascending order of when the peer was taken last, wrong codes on the connection,
  /// arrival.
  using Rank = std::tuple<std::uint64_t, int, std::uint64_t>;
  Rank rankOf(const Attempt& attempt) const;

  const AuthDelay delay_;
  Clock::time_point fullAt_;  // Each token taken moves it by one refill.
  std::vector<Attempt> waiting_;
  std::map<ClientId, int> wrong_;
  std::map<std::string, std::uint64_t> lastTaken_;  // Of peers; forgotten in quiet times.
  std::uint64_t arrivals_ = 0;
  std::uint64_t taken_ = 0;
};

}  // namespace tarnlink
