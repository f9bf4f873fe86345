#include "server/auth_gate.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tarnlink {

AuthGate::Rank AuthGate::rankOf(const Attempt& attempt) const {
  const auto last = lastTaken_.find(attempt.peer);
  const auto wrong = wrong_.find(attempt.client);
  return {last == lastTaken_.end() ? 0 : last->second, wrong == wrong_.end() ? 0 : wrong->second,
          attempt.arrival};
}

std::optional<ClientId> AuthGate::enter(const ClientId& client, std::string peer,
                                        Clock::time_point now) {
  if (isQuiet(now)) lastTaken_.clear();
  waiting_.push_back({client, std::move(peer), arrivals_++});
  if (waiting_.size() <= kMaxWaiting) return std::nullopt;
  std::map<std::string_view, std::size_t> counts;
  for (const auto& attempt : waiting_) ++counts[attempt.peer];
  const auto last = std::max_element(
      waiting_.begin(), waiting_.end(), [this, &counts](const Attempt& a, const Attempt& b) {
        return std::pair(counts[a.peer], rankOf(a)) < std::pair(counts[b.peer], rankOf(b));
      });
  const ClientId refused = last->client;
  waiting_.erase(last);
  return refused;
}

std::optional<ClientId> AuthGate::next(Clock::time_point now) {
  if (waiting_.empty() || now < *due()) return std::nullopt;
  const auto first = std::min_element(
      waiting_.begin(), waiting_.end(),
      [this](const Attempt& a, const Attempt& b) { return rankOf(a) < rankOf(b); });
  const ClientId client = first->client;
  if (lastTaken_.size() >= kMaxPeers) lastTaken_.clear();
  lastTaken_[first->peer] = ++taken_;
  waiting_.erase(first);
  fullAt_ = std::max(fullAt_, now) + delay_.refill;
  return client;
}

void AuthGate::tell(const ClientId& client, bool isRight) {
  if (isRight) {
    fullAt_ -= delay_.refill;
  } else {
    ++wrong_[client];
  }
}

void AuthGate::leave(const ClientId& client) {
  wrong_.erase(client);
  std::erase_if(waiting_, [&client](const Attempt& attempt) { return attempt.client == client; });
}

std::optional<AuthGate::Clock::time_point> AuthGate::due() const {
  if (waiting_.empty()) return std::nullopt;
  return fullAt_ - delay_.refill * (delay_.burst - 1);
}

}  // namespace tarnlink
