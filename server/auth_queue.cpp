#include "server/auth_queue.h"

#include <boost/system/error_code.hpp>
#include <utility>

namespace tarnlink {
namespace asio = boost::asio;

asio::awaitable<AuthQueue::Outcome> AuthQueue::wait(ClientId client, std::string peer) {
  const auto now = AuthGate::Clock::now();
  if (gate_.isQuiet(now)) hasSaidSo_ = false;
  const auto place = std::make_shared<Place>(strand_);
  places_[client] = place;
  if (const auto refused = gate_.enter(client, peer, now)) call(*refused, Outcome::tooMany);
  callNext();
  if (!place->called.isSet() && !std::exchange(hasSaidSo_, true)) {
    log_("[BridgeServer] Many wrong pairing codes, the latest attempt from " + peer +
         ": attempts wait for their turn");
  }
  co_await place->called.wait();
  co_return place->outcome;
}

void AuthQueue::tell(const ClientId& client, bool isRight) {
  gate_.tell(client, isRight);
  callNext();
}

void AuthQueue::withdraw(const ClientId& client) {
  gate_.leave(client);
  call(client, Outcome::gone);
}

void AuthQueue::withdrawAll() {
  timer_.cancel();
  while (!places_.empty()) withdraw(ClientId(places_.begin()->first));
}

void AuthQueue::callNext() {
  while (const auto client = gate_.next(AuthGate::Clock::now())) call(*client, Outcome::yours);
  const auto due = gate_.due();
  if (!due) return;
  timer_.expires_at(*due);
  timer_.async_wait([weak = weak_from_this()](const boost::system::error_code& cancelled) {
    const auto self = weak.lock();
    if (self && !cancelled) self->callNext();
  });
}

void AuthQueue::call(const ClientId& client, Outcome outcome) {
  const auto found = places_.find(client);
  if (found == places_.end()) return;
  found->second->outcome = outcome;
  found->second->called.set();
  places_.erase(found);
}

}  // namespace tarnlink
