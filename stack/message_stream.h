// The asynchronous stream between a capture thread and the coroutine that consumes its records.
#pragma once

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
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
    std::function<void()> wake;
    {
      const std::lock_guard hold(lock_);
      if (ended_) {
        batch.clear();
        return;
      }
      queued_.takeAll(batch);
      wake = std::exchange(waiter_, nullptr);
    }
    if (wake) wake();
  }

  /// Either end: no further records; those already queued are still delivered.
  void finish() { end(false); }

  /// Consumer: no further records, and queued ones are dropped.
  void abandon() { end(true); }

  /// Consumer: swaps what is queued into `batch`. False when there is nothing; then `wake` is kept
  /// and called once at the next burst or the end, unless the stream has ended already.
  bool takeOrWait(Batch& batch, bool& ended, std::function<void()> wake) {
    batch.clear();
    const std::lock_guard hold(lock_);
    ended = ended_;
    if (!queued_.empty()) {
      std::swap(batch, queued_);
      return true;
    }
    if (!ended_) waiter_ = std::move(wake);
    return false;
  }

 private:
  void end(bool dropQueued) {
    std::function<void()> wake;
    std::function<void()> termination;
    {
      const std::lock_guard hold(lock_);
      if (dropQueued) queued_.clear();
      if (ended_) return;
      ended_ = true;
      wake = std::exchange(waiter_, nullptr);
      termination = std::exchange(termination_, nullptr);
    }
    if (wake) wake();
    if (termination) termination();
  }

  std::mutex lock_;
  Batch queued_;
  bool ended_ = false;
  std::function<void()> waiter_;
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
    while (state_) {
      bool ended = false;
      bool taken = false;
      co_await waitFor(batch, taken, ended);
      if (taken) co_return true;
      if (ended) break;
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
  boost::asio::awaitable<void> waitFor(Batch& batch, bool& taken, bool& ended) {
    auto initiate = [this, &batch, &taken, &ended](auto handler) {
      auto executor = boost::asio::get_associated_executor(handler);
      auto shared = std::make_shared<decltype(handler)>(std::move(handler));
      auto resume = [executor, shared] {
        boost::asio::post(executor, [shared] { std::move (*shared)(); });
      };
      taken = state_->takeOrWait(batch, ended, resume);
      if (taken || ended) resume();
    };
    return boost::asio::async_initiate<decltype(boost::asio::use_awaitable), void()>(
        std::move(initiate), boost::asio::use_awaitable);
  }

  std::shared_ptr<StreamState<Record>> state_;
};

}  // namespace tarnlink
