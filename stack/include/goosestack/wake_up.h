// How a thread wakes a coroutine.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

namespace goosestack {

/// Passes by the locks of the event loop, of which a thread that posts a handler or cancels a timer
/// holds one while it wakes: whoever woke would find it taken, and sleep again.
class WakeUp {
 public:
  /// Throws std::system_error when there is no descriptor left.
  WakeUp();
  ~WakeUp();
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  /// Ends a wait, the next one if there is none. Any thread.
  void signal() noexcept;

  /// The place to wait; lives shorter than the executor and no longer than the wake-up.
  class Place {
   public:
    Place(const WakeUp& wakeUp, const boost::asio::any_io_executor& executor);
    ~Place();
    Place(Place&&) noexcept = default;
    Place& operator=(Place&&) = delete;

    /// One at a time, on the executor.
    boost::asio::awaitable<void> wait();

   private:
    boost::asio::posix::stream_descriptor descriptor_;
  };

 private:
  int descriptor_;
};

}  // namespace goosestack
