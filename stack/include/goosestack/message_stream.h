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
#include <cstddef>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "goosestack/recycled_batch.h"

namespace goosestack {

/// The buffer that both ends share: bursts, each of them what a consumer takes at a time. Takes
/// whatever comes, and tells the producer when it is full. Thread-safe; locks and wake-ups are paid
/// once a burst.
template <class Record>
class StreamState {
 public:
  using Batch = RecycledBatch<Record>;

  static constexpr std::size_t kUnbounded = std::numeric_limits<std::size_t>::max();
  /// Consumed bursts whose storage is kept for the next ones.
  static constexpr std::size_t kSpareBursts = 8;

  /// `limit` bounds what queued records hold, by their weight. Octets.
  explicit StreamState(std::size_t limit = kUnbounded) : limit_(limit) {}

  /// Called once, outside the lock, when the stream ends for any reason. Install before the
  /// stream has a consumer.
  void onTermination(std::function<void()> handler) { termination_ = std::move(handler); }

  /// Producer: hands over a burst and leaves `batch` empty. Records of an ended stream are dropped.
  /// False when the stream is full.
  bool yield(Batch& batch) {
    const std::lock_guard hold(lock_);
    if (ended_) {
      batch.clear();
      return true;
    }
    queuedOctets_ += batch.octets();
    if (queuedOctets_ > limit_) isFull_ = true;
    const bool fits = !queued_.empty() && !queued_.back().isFull() &&
                      queued_.back().size() + batch.size() <= Batch::kFullRecords;
    if (!fits) {
      if (spare_.empty()) spare_.emplace_back();
      queued_.splice(queued_.end(), spare_, spare_.begin());
    }
    queued_.back().takeAll(batch);
    wake();
    return !isFull_;
  }

  /// Producer: whether it should yield nothing more for now. True from the limit on until half of
  /// it is left.
  bool isFull() const {
    const std::lock_guard hold(lock_);
    return isFull_ && !ended_;
  }

  /// Either end: no further records; those already queued are still delivered.
  void finish() { end(false); }

  /// Consumer: no further records, and queued ones are dropped.
  void abandon() { end(true); }

  /// Consumer: swaps the oldest burst into `batch`. False when there is none.
  bool take(Batch& batch, bool& ended) {
    batch.clear();
    std::list<Batch> surplus;  // Freed without the lock.
    const std::lock_guard hold(lock_);
    ended = ended_;
    if (queued_.empty()) return false;
    std::swap(batch, queued_.front());
    queuedOctets_ -= batch.octets();
    if (queuedOctets_ <= limit_ / 2) isFull_ = false;
    spare_.splice(spare_.begin(), queued_, queued_.begin());
    if (spare_.size() > kSpareBursts) surplus.splice(surplus.end(), spare_, --spare_.end());
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
    std::list<Batch> dropped;
    {
      const std::lock_guard hold(lock_);
      if (dropQueued) {
        dropped.swap(queued_);
        queuedOctets_ = 0;
      }
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

  const std::size_t limit_;
  mutable std::mutex lock_;
  std::list<Batch> queued_;  // Oldest first.
  std::list<Batch> spare_;   // Empty ones.
  std::size_t queuedOctets_ = 0;
  bool isFull_ = false;
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

  /// The oldest burst that has queued, in arrival order, into `batch` (whose old records are
  /// recycled). False when the stream has ended.
  boost::asio::awaitable<bool> next(Batch& batch) {
    if (!state_) co_return false;
    bool ended = false;
    if (state_->take(batch, ended)) {
      co_await boost::asio::post(boost::asio::use_awaitable);  // Lets others run between.
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

}  // namespace goosestack
