// Sends a burst of records to every subscriber that wants them.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "websocket/text_frame.h"

namespace tarnlink {

/// Goes client by client: each gets what it wants of the burst in one piece, so that its queue and
/// its socket are visited once, however many events there are. Keeps its lists for the next burst.
class EventFanOut {
 public:
  /// `subscribers` is a map whose values have a `filter` and a `connection`. An event is encoded at
  /// the first subscriber that wants it and shared by all others. Returns the number of events that
  /// somebody wanted.
  template <class Record, class Subscribers, class Wants, class Encode>
  std::size_t send(std::span<const Record> burst, const Subscribers& subscribers, Wants wants,
                   Encode encode) {
    std::size_t encoded = 0;
    events_.assign(burst.size(), nullptr);
    for (const auto& [id, subscriber] : subscribers) {
      wanted_.clear();
      for (std::size_t i = 0; i < burst.size(); ++i) {
        if (!wants(subscriber.filter, burst[i])) continue;
        if (!events_[i]) {
          events_[i] = encode(burst[i]);
          ++encoded;
        }
        wanted_.push_back(events_[i]);
      }
      subscriber.connection->sendBurst(wanted_);
    }
    events_.clear();
    wanted_.clear();
    return encoded;
  }

 private:
  std::vector<SharedTextFrame> events_;  // of the burst; empty where nobody has wanted one yet
  std::vector<SharedTextFrame> wanted_;  // by one subscriber
};

}  // namespace tarnlink
