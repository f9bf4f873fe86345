// The coroutines that an actor has started: counted, so that its end can wait for theirs.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/strand.hpp>
#include <memory>

#include "goosestack/log_sink.h"
#include "stack/async_mutex.h"

namespace tarnlink {

/// All calls on the strand.
class TaskGroup {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;

  TaskGroup(Strand strand, goosestack::LogSink log);

  /// Runs the task on the strand. An exception that it lets out is logged and ends it.
  void spawn(boost::asio::awaitable<void> task);

  /// Returns once no task runs.
  boost::asio::awaitable<void> join();

 private:
  struct State {
    explicit State(const Strand& strand) : idle(strand) { idle.set(); }
    goosestack::AsyncEvent idle;
    std::size_t running = 0;
  };

  Strand strand_;
  goosestack::LogSink log_;
  std::shared_ptr<State> state_;  // Tasks may outlive the group.
};

}  // namespace tarnlink
