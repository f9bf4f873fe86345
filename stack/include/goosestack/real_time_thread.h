// A thread for work that is due at exact times, out of the way of everything else.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <thread>

namespace goosestack {

/// Runs one executor on one thread, which asks the system for real-time scheduling and goes on
/// without it where that is not granted. Destroying it drops what is still queued and joins the
/// thread; it lives longer than all who use its executor.
class RealTimeThread {
 public:
  RealTimeThread();
  ~RealTimeThread();
  RealTimeThread(const RealTimeThread&) = delete;
  RealTimeThread& operator=(const RealTimeThread&) = delete;

  boost::asio::any_io_executor executor() { return context_.get_executor(); }
  bool isRealTime() const { return isRealTime_; }

 private:
  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  bool isRealTime_ = false;
  std::thread thread_;
};

/// Gives the calling thread the finest timers of the system and, where it may have it, real-time
/// scheduling. Says whether it got the latter.
bool askForRealTime();

/// Blocks the calling thread until `deadline`; returns at once when that has passed. Sleeps, but
/// watches the clock for the last moments: waking takes the system tens of microseconds.
void waitUntil(std::chrono::steady_clock::time_point deadline);

}  // namespace goosestack
