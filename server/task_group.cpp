#include "server/task_group.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <exception>
#include <string>
#include <utility>

namespace tarnlink {

TaskGroup::TaskGroup(Strand strand, goosestack::LogSink log)
    : strand_(std::move(strand)), log_(std::move(log)), state_(std::make_shared<State>(strand_)) {}

void TaskGroup::spawn(boost::asio::awaitable<void> task) {
  ++state_->running;
  state_->idle.reset();
  auto onEnd = [state = state_, log = log_](const std::exception_ptr& failure) {
    if (--state->running == 0) state->idle.set();
    if (!failure) return;
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      log(std::string("[BridgeServer] Internal error: ") + error.what());
    } catch (...) {
      log("[BridgeServer] Internal error");
    }
  };
  boost::asio::co_spawn(strand_, std::move(task),
                        boost::asio::bind_executor(strand_, std::move(onEnd)));
}

boost::asio::awaitable<void> TaskGroup::join() {
  while (!state_->idle.isSet()) co_await state_->idle.wait();
}

}  // namespace tarnlink
