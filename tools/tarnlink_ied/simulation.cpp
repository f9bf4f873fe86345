#include "tools/tarnlink_ied/simulation.h"

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <string>
#include <utility>

namespace tarnlink {
namespace {

using Clock = CueSource::Clock;

/// The first moment of the grid after `now`.
Clock::time_point nextTick(Clock::time_point due, Clock::time_point now,
                           std::chrono::milliseconds interval) {
  const auto late = std::max(now - due, Clock::duration::zero());
  return due + (late / interval + 1) * interval;
}

}  // namespace

Simulation::Simulation(std::vector<Publication> publications, boost::asio::any_io_executor executor,
                       Log log)
    : publications_(std::move(publications)),
      executor_(std::move(executor)),
      log_(std::move(log)) {}

Simulation::~Simulation() {
  for (const auto& publication : publications_) {
    boost::asio::co_spawn(executor_, publication.publisher->stop(), boost::asio::use_future).get();
  }
}

void Simulation::run(std::chrono::milliseconds interval, CueSource& cues) {
  for (auto& publication : publications_) changeState(publication);
  const bool isPeriodic = interval.count() > 0 && !publications_.empty();
  auto due = isPeriodic ? std::optional(cues.now() + interval) : std::nullopt;
  while (true) {
    switch (cues.waitUntil(due)) {
      case Cue::end:
        return;
      case Cue::trip:
        if (!publications_.empty()) changeState(publications_.front());
        break;
      case Cue::change:
        changeNext();
        break;
      case Cue::due:
        changeNext();
        due = nextTick(*due, cues.now(), interval);
        break;
    }
  }
}

void Simulation::changeNext() {
  if (publications_.empty()) return;
  changeState(publications_[next_]);
  next_ = (next_ + 1) % publications_.size();
}

void Simulation::changeState(Publication& publication) {
  auto& [config, dataset] = publication.block;
  config.values = dataset(publication.states++, goosestack::timeNow());
  auto work = publication.publisher->publishStateChange(config);
  const auto published =
      boost::asio::co_spawn(executor_, std::move(work), boost::asio::use_future).get();
  log_(published ? "New state of " + config.goCBRef
                 : config.goCBRef + " was not sent: " + published.error().description());
}

}  // namespace tarnlink
