// The asynchronous stream between a capture thread and the coroutine that consumes its records.
#pragma once

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/error_code.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "stack/recycled_batch.h"

namespace tarnlink {

/// The buffer that both ends share. Unbounded by design: a slow consumer costs memory, never
/// records. Thread-safe; locks and wake-ups are paid once a burst.
template <class Record>
class StreamState {
 public:
  using Batch = RecycledBatch<Record>;

  /// Called once, outside the lock, when the stream ends for any reason. Install before the
  /// stream has a consumer.
  void onTermination(std::function<void()> handler) { termination_ = std::move(handler); }

  /// Producer: hands over a burst and leaves `batch` empty. Records of an ended stream are dropped.
  void yield(Batch& batch) {
    const std::lock_guard hold(lock_);
    if (ended_) {
      batch.clear();
      return;
    }
    queued_.takeAll(batch);
    wake();
  }

  /// Either end: no further records; those already queued are still delivered.
  void finish() { end(false); }

  /// Consumer: no further records, and queued ones are dropped.
  void abandon() { end(true); }

  /// Consumer: swaps what is queued into `batch`. False when there is nothing.
  bool take(Batch& batch, bool& ended) {
    batch.clear();
    const std::lock_guard hold(lock_);
    ended = ended_;
    if (queued_.empty()) return false;
    std::swap(batch, queued_);
    return true;
  }

  /// The consumer's place to wait: a timer that never expires by itself. The producer cancels it,
  /// which allocates nothing on the capture thread, unlike posting a handler.
  class Wait {
   public:
    Wait(StreamState& state, const boost::asio::any_io_executor& executor)
        : state_(state), timer_(executor, boost::asio::steady_timer::time_point::max()) {}
    ~Wait() {
      const std::lock_guard hold(state_.lock_);
      state_.waiting_ = nullptr;
    }
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    /// Completes when there may be something to take(), or the stream has ended.
    template <class Token>
    auto async(Token&& token) {
      return boost::asio::async_initiate<Token, void(boost::system::error_code)>(
          [this](auto handler) {
            // Under the lock, because a timer is not safe to use from two threads.
            const std::lock_guard hold(state_.lock_);
            if (state_.queued_.empty() && !state_.ended_) {
              state_.waiting_ = &timer_;
            } else {
              timer_.expires_at(boost::asio::steady_timer::time_point::min());
            }
            timer_.async_wait(std::move(handler));
          },
          token);
    }

   private:
    StreamState& state_;
    boost::asio::steady_timer timer_;
  };

 private:
  void end(bool dropQueued) {
    std::function<void()> termination;
    {
      const std::lock_guard hold(lock_);
      if (dropQueued) queued_.clear();
      if (ended_) return;
      ended_ = true;
      wake();
      termination = std::exchange(termination_, nullptr);
    }
    if (termination) termination();
  }

  void wake() {
    if (auto* waiting = std::exchange(waiting_, nullptr)) waiting->cancel();
  }

  std::mutex lock_;
  Batch queued_;
  bool ended_ = false;
  boost::asio::steady_timer* waiting_ = nullptr;  // of the Wait in which the consumer sleeps
  std::function<void()> termination_;
};

/// The consumer's end; dropping it ends the stream. Movable; one coroutine at a time awaits next().
template <class Record>
class MessageStream {
 public:
  using Batch = RecycledBatch<Record>;

  MessageStream() = default;  ///< Has ended already.
  explicit MessageStream(std::shared_ptr<StreamState<Record>> state) : state_(std::move(state)) {}
  MessageStream(MessageStream&&) noexcept = default;
  MessageStream& operator=(MessageStream&&) = delete;
  ~MessageStream() {
    if (state_) state_->abandon();
  }

  /// All that has queued since the last call, in arrival order, into `batch` (whose old records
  /// are recycled). False when the stream has ended.
  boost::asio::awaitable<bool> next(Batch& batch) {
    if (!state_) co_return false;
    bool ended = false;
    if (state_->take(batch, ended)) {
      co_await boost::asio::post(boost::asio::use_awaitable);  // Others have their turn between.
      co_return true;
    }
    typename StreamState<Record>::Wait wait(*state_, co_await boost::asio::this_coro::executor);
    while (!ended) {
      co_await wait.async(boost::asio::as_tuple(boost::asio::use_awaitable));
      if (state_->take(batch, ended)) co_return true;
    }
    co_return false;
  }

  /// Something that ends the stream from outside, from any thread, queued records dropped: how a
  /// consumer is cancelled.
  std::function<void()> canceller() const {
    return [weak = std::weak_ptr(state_)] {
      if (auto state = weak.lock()) state->abandon();
    };
  }

 private:
  std::shared_ptr<StreamState<Record>> state_;
};

}  // namespace tarnlink
