#include "goosestack/punctual_thread.h"

#include <future>

namespace goosestack {

PunctualThread::PunctualThread() : work_(context_.get_executor()) {
  std::promise<bool> started;
  auto granted = started.get_future();
  thread_ = std::thread([this, &started] {
    started.set_value(askForPunctuality());
    context_.run();
  });
  isRealTime_ = granted.get();
}

PunctualThread::~PunctualThread() {
  context_.stop();
  thread_.join();
}

}  // namespace goosestack
