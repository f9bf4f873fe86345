// Mutual exclusion between coroutines of one strand, across their awaits.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/error_code.hpp>
#include <utility>

namespace goosestack {

/// Wakes every coroutine that waits for it. All calls on one strand; lives longer than its waiters.
class AsyncEvent {
 public:
  template <class Executor>
  explicit AsyncEvent(const Executor& strand)
      : timer_(strand, boost::asio::steady_timer::time_point::max()) {}

  void set() {
    isSet_ = true;
    timer_.cancel();
  }
  void reset() { isSet_ = false; }
  bool isSet() const { return isSet_; }

  boost::asio::awaitable<void> wait() {
    while (!isSet_) {
      boost::system::error_code ignored;
      co_await timer_.async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
    }
  }

 private:
  boost::asio::steady_timer timer_;
  bool isSet_ = false;
};

/// Whoever had to wait must look at the guarded state anew. All calls on one strand.
class AsyncMutex {
 public:
  template <class Executor>
  explicit AsyncMutex(const Executor& strand) : freed_(strand) {
    freed_.set();
  }

  /// Releases on destruction, on the same strand.
  class Guard {
   public:
    explicit Guard(AsyncMutex& mutex) : mutex_(&mutex) {}
    Guard(Guard&& other) noexcept : mutex_(std::exchange(other.mutex_, nullptr)) {}
    Guard& operator=(Guard&&) = delete;
    ~Guard() {
      if (mutex_ != nullptr) mutex_->freed_.set();
    }

   private:
    AsyncMutex* mutex_;
  };

  boost::asio::awaitable<Guard> lock() {
    while (!freed_.isSet()) co_await freed_.wait();
    freed_.reset();
    co_return Guard(*this);
  }

 private:
  AsyncEvent freed_;
};

}  // namespace goosestack
