// The simulated IED's GOOSE side: control blocks that change their states, each with a publisher.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "goosestack/publishing.h"
#include "tools/tarnlink_ied/cues.h"
#include "tools/tarnlink_ied/feeder_bay.h"

namespace tarnlink {

struct Publication {
  ControlBlock block;
  std::shared_ptr<goosestack::GoosePublishing> publisher;
  std::uint32_t states = 0;  ///< Published so far.
};

/// One thread; blocks it while a publisher works.
class Simulation {
 public:
  using Log = std::function<void(std::string_view line)>;

  /// The first publication is the breaker's. The publishers' work is awaited on `executor`, which
  /// another thread runs.
  Simulation(std::vector<Publication> publications, boost::asio::any_io_executor executor, Log log);
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  /// Publishes every control block once, and then one state change each `interval`, the control
  /// blocks taking turns, counted from the start so that errors do not add up; after a stall the
  /// changes that were missed are left out. An interval of 0 leaves changes to the other cues.
  /// A change that cannot be sent is logged and the next one tried. Returns at Cue::end.
  void run(std::chrono::milliseconds interval, CueSource& cues);

 private:
  void changeState(Publication& publication);
  void changeNext();

  std::vector<Publication> publications_;
  boost::asio::any_io_executor executor_;
  Log log_;
  std::size_t next_ = 0;
};

}  // namespace tarnlink
