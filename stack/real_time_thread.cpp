#include "goosestack/real_time_thread.h"

#include <future>

namespace goosestack {

RealTimeThread::RealTimeThread() : work_(context_.get_executor()) {
  std::promise<bool> started;
  auto granted = started.get_future();
  thread_ = std::thread([this, &started] {
    started.set_value(askForRealTime());
    context_.run();
  });
  isRealTime_ = granted.get();
}

RealTimeThread::~RealTimeThread() {
  context_.stop();
  thread_.join();
}

}  // namespace goosestack
