// One capture of the server: its receiver, the task that drains the stream, and the turn that
// serialises starting and stopping.
#pragma once

#include <algorithm>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "goosestack/record_source.h"
#include "stack/async_mutex.h"

namespace tarnlink {

/// All calls on the actor's strand. start() and stop() need the turn, and whoever waited for it
/// must look at the state anew.
template <class Record>
class CaptureControl {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  using Source = goosestack::RecordSource<Record>;
  using SourceFactory = std::function<std::shared_ptr<Source>()>;
  /// What a capture does to its owner, on the strand. All hold the owner weakly.
  struct Events {
    /// Records in arrival order.
    std::function<void(std::span<Record>)> onRecords;
    /// The running capture has died by itself, with the reason; it still has to be stopped.
    std::function<void(const std::string& reason)> onDeath;
    /// The kernel had no room for frames.
    std::function<void(const goosestack::CaptureDrops& drops)> onDrops;
  };

  /// What becomes of records that wait in the stream when a capture stops.
  enum class Queued { deliver, drop };

  CaptureControl(Strand strand, SourceFactory makeSource)
      : strand_(std::move(strand)), makeSource_(std::move(makeSource)), turn_(strand_) {}

  auto turn() { return turn_.lock(); }

  /// True from a successful start until stop(), or until the capture has ended by itself.
  bool isCapturing() const { return task_ && !task_->ended.isSet() && !task_->hasDied; }

  /// Where the latest capture was started; the active interface may be another by now.
  const std::string& interface() const { return interface_; }

  boost::asio::awaitable<goosestack::GooseResult<void>> start(std::string interface,
                                                              Events events) {
    co_await stop(Queued::drop);
    auto source = makeSource_();
    auto task = std::make_shared<Task>(strand_);
    typename Source::Events told;
    told.onDeath = [strand = strand_, weak = std::weak_ptr(task),
                    tell = std::move(events.onDeath)](std::string reason) {
      boost::asio::post(strand, [weak, tell, reason] {
        // A capture that was stopped meanwhile has no say any more.
        const auto dead = weak.lock();
        if (dead && !std::exchange(dead->hasDied, true)) tell(reason);
      });
    };
    told.onDrops = [strand = strand_,
                    tell = std::move(events.onDrops)](const goosestack::CaptureDrops& drops) {
      boost::asio::post(strand, [tell, drops] { tell(drops); });
    };
    interface_ = interface;
    auto stream = co_await source->start(std::move(interface), std::move(told));
    if (!stream) co_return stream.error();
    source_ = std::move(source);
    task->cancel = stream->canceller();
    task_ = std::move(task);
    boost::asio::co_spawn(strand_, drain(task_, std::move(*stream), std::move(events.onRecords)),
                          boost::asio::detached);
    co_return goosestack::GooseResult<void>();
  }

  boost::asio::awaitable<void> stop(Queued queued) {
    if (task_ && queued == Queued::drop) task_->cancel();
    if (source_) co_await source_->stop();
    if (task_) co_await task_->ended.wait();
    source_.reset();
    task_.reset();
  }

  /// Somebody is trying to bring the capture back.
  bool isRetried = false;

 private:
  struct Task {
    explicit Task(const Strand& strand) : ended(strand) {}
    goosestack::AsyncEvent ended;
    std::function<void()> cancel;
    bool hasDied = false;
  };

  static boost::asio::awaitable<void> drain(std::shared_ptr<Task> task,
                                            goosestack::MessageStream<Record> stream,
                                            std::function<void(std::span<Record>)> consume) {
    typename goosestack::MessageStream<Record>::Batch batch;
    // One burst a turn: other work of the actor has its own between two.
    while (co_await stream.next(batch)) consume(batch.records());
    task->ended.set();
  }

  Strand strand_;
  SourceFactory makeSource_;
  goosestack::AsyncMutex turn_;
  std::string interface_;
  std::shared_ptr<Source> source_;
  std::shared_ptr<Task> task_;
};

}  // namespace tarnlink
