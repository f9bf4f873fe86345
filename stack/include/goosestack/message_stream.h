// The asynchronous stream between a capture thread and the coroutine that consumes its records.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstddef>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "goosestack/recycled_batch.h"
#include "goosestack/wake_up.h"

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
    std::unique_lock hold(lock_);
    if (ended_) {
      batch.clear();
      return true;
    }
    queuedOctets_ += batch.octets();
    if (queuedOctets_ > limit_) isFull_ = true;
    const bool hasRoom = !isFull_;
    const bool fits = !queued_.empty() && !queued_.back().isFull() &&
                      queued_.back().size() + batch.size() <= Batch::kFullRecords;
    if (!fits) {
      if (spare_.empty()) spare_.emplace_back();
      queued_.splice(queued_.end(), spare_, spare_.begin());
    }
    queued_.back().takeAll(batch);
    wake(hold);
    return hasRoom;
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

  /// Consumer: swaps the oldest burst into `batch`. False when there is none: then the next burst
  /// or the stream's end, where that has not come, ends the consumer's wait.
  bool take(Batch& batch, bool& ended) {
    batch.clear();
    std::list<Batch> surplus;  // Freed without the lock.
    const std::lock_guard hold(lock_);
    ended = ended_;
    isAwaited_ = queued_.empty() && !ended_;
    if (queued_.empty()) return false;
    std::swap(batch, queued_.front());
    queuedOctets_ -= batch.octets();
    if (queuedOctets_ <= limit_ / 2) isFull_ = false;
    spare_.splice(spare_.begin(), queued_, queued_.begin());
    if (spare_.size() > kSpareBursts) surplus.splice(surplus.end(), spare_, --spare_.end());
    return true;
  }

  /// Consumer: where it waits after take() has found nothing. Lives shorter than the state.
  WakeUp::Place place(const boost::asio::any_io_executor& executor) const {
    return WakeUp::Place(wakeUp_, executor);
  }

 private:
  void end(bool dropQueued) {
    std::function<void()> termination;
    std::list<Batch> dropped;
    std::unique_lock hold(lock_);
    if (dropQueued) {
      dropped.swap(queued_);
      queuedOctets_ = 0;
    }
    if (std::exchange(ended_, true)) return;
    termination = std::exchange(termination_, nullptr);
    wake(hold);
    if (termination) termination();
  }

  // Without the lock, which the consumer wants at once.
  void wake(std::unique_lock<std::mutex>& hold) {
    const bool isAwaited = std::exchange(isAwaited_, false);
    hold.unlock();
    if (isAwaited) wakeUp_.signal();
  }

  const std::size_t limit_;
  mutable std::mutex lock_;
  std::list<Batch> queued_;  // Oldest first.
  std::list<Batch> spare_;   // Empty ones.
  std::size_t queuedOctets_ = 0;
  bool isFull_ = false;
  bool ended_ = false;
  bool isAwaited_ = false;  // The consumer waits.
  WakeUp wakeUp_;
  std::function<void()> termination_;
};

/// The consumer's end; dropping it ends the stream. Movable; one coroutine at a time awaits next(),
/// always on the same executor, which outlives the stream.
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
    bool ended = !state_;
    if (!ended && state_->take(batch, ended)) {
      co_await boost::asio::post(boost::asio::use_awaitable);  // Lets others run between.
      co_return true;
    }
    while (!ended) {
      if (!place_) place_.emplace(state_->place(co_await boost::asio::this_coro::executor));
      co_await place_->wait();
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
  std::optional<WakeUp::Place> place_;
};

}  // namespace goosestack
