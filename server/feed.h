// One kind of captured traffic: who wants it, the capture behind it, its recovery, and the way of
// its records to the clients.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "goosestack/log_sink.h"
#include "goosestack/record_source.h"
#include "protocol/json_writer.h"
#include "server/client_id.h"
#include "stack/async_mutex.h"
#include "websocket/websocket.h"

namespace tarnlink {

/// What a feed asks of the server that it is a part of. All calls on the server's strand.
class FeedHost {
 public:
  /// The active interface; one is chosen where there is none.
  virtual const std::string& chooseInterface() = 0;
  virtual bool isStopping() const = 0;
  virtual void broadcastStatus() = 0;
  /// Runs a task of the feed's, which ends before the host does.
  virtual void spawn(boost::asio::awaitable<void> task) = 0;

 protected:
  ~FeedHost() = default;
};

/// The line that tells which frames a capture has lost.
std::string dropLine(const std::string& interface, const goosestack::CaptureDrops& drops);

/// An event as a frame that all its receivers share.
template <class Record>
SharedTextFrame toFrame(const Record& record, void (*encode)(const Record&, JsonWriter&)) {
  JsonWriter writer(TextFrame::kHeaderRoom);
  encode(record, writer);
  auto storage = writer.release();
  return TextFrame::adopt(std::move(storage.octets), storage.size, storage.textLength);
}

/// The first subscriber starts the capture, the last to leave stops it, and one that dies is tried
/// again for as long as somebody is subscribed. `Filter` brings `bool matches(const Record&)
/// const`. A part of an actor: all calls on its strand. Starting and stopping is served one at a
/// time, and whoever waited for that looks at the state anew.
template <class Record, class Filter>
class Feed {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  using Source = goosestack::RecordSource<Record>;
  using Connection = std::shared_ptr<WebSocketConnection>;

  struct Kind {
    std::string label;  ///< Begins its log lines.
    /// Ends with the interface, when a subscription is about to start the capture. Empty: no line.
    std::string startLine;
    /// Each start is on the active interface. Otherwise the capture belongs to the interface where
    /// it was started until its last subscriber leaves.
    bool followsInterface;
    /// Writes the event of a record.
    void (*encode)(const Record&, JsonWriter&);
    std::function<std::shared_ptr<Source>()> makeSource;
    /// Between two tries to start a capture that has died.
    std::chrono::milliseconds recoveryPause;
  };

  Feed(FeedHost& host, const Strand& strand, goosestack::LogSink log, Kind kind)
      : host_(host),
        strand_(strand),
        log_(std::move(log)),
        kind_(std::move(kind)),
        lock_(strand),
        pause_(strand) {}

  enum class Subscribed {
    gone,     ///< The client left meanwhile, or the server stops.
    joined,   ///< A capture was running.
    started,  ///< This one has started it,
    revived,  ///< and others have been told that theirs had died.
  };

  /// A second subscription of a client replaces its first. One whose capture does not start is
  /// dropped.
  boost::asio::awaitable<goosestack::GooseResult<Subscribed>> subscribe(ClientId id, Filter filter,
                                                                        Connection connection) {
    if (subscribers_.empty()) hasHome_ = false;
    subscribers_.insert_or_assign(id, Subscriber{std::move(filter), std::move(connection)});
    const auto lock = co_await lock_.lock();
    if (!subscribers_.contains(id) || host_.isStopping()) co_return Subscribed::gone;
    if (isCapturing()) {
      hasHome_ = true;
      co_return Subscribed::joined;
    }
    const auto started = co_await start(kind_.startLine);
    if (!started) {
      subscribers_.erase(id);
      co_return started.error();
    }
    // Nobody may be left to listen by now.
    if (subscribers_.empty()) co_await endCapture(Queued::drop);
    co_return isRetried_ ? Subscribed::revived : Subscribed::started;
  }

  boost::asio::awaitable<void> unsubscribe(ClientId id) {
    subscribers_.erase(id);
    if (subscribers_.empty()) co_await stopIfUnused();
  }

  /// The client is gone.
  void remove(const ClientId& id) {
    if (subscribers_.erase(id) != 0 && subscribers_.empty()) host_.spawn(stopIfUnused());
  }

  /// To the interface that is active by now. What was captured before is still delivered. Where the
  /// capture cannot start, its subscribers stay, and it is tried again.
  boost::asio::awaitable<void> move() {
    const auto lock = co_await lock_.lock();
    if (isCapturing()) co_await endCapture(Queued::deliver);
    // Subscribers are counted after the stop: the last one may have left meanwhile, and others may
    // still wait for a capture that could not start.
    if (subscribers_.empty() || host_.isStopping()) co_return;
    const auto started = co_await start();
    if (started) co_return;
    log("✗ capture start failed: " + started.error().description());
    host_.spawn(retry());
  }

  /// Ends the capture and all subscriptions; the host is stopping.
  boost::asio::awaitable<void> stop() {
    pause_.cancel();
    const auto lock = co_await lock_.lock();
    co_await endCapture(Queued::drop);
    subscribers_.clear();
  }

  /// True from a successful start until the stop, or until the capture has ended by itself.
  bool isCapturing() const { return run_ && !run_->ended.isSet() && !run_->hasDied; }
  /// Where the latest capture was started; the active interface may be another by now.
  const std::string& interface() const { return interface_; }
  std::int64_t received() const { return received_; }
  /// Records that somebody wanted.
  std::int64_t forwarded() const { return forwarded_; }

 private:
  struct Subscriber {
    Filter filter;
    Connection connection;
  };
  /// One capture that has started.
  struct Run {
    explicit Run(const Strand& strand) : ended(strand) {}
    std::shared_ptr<Source> source;
    std::function<void()> cancel;
    goosestack::AsyncEvent ended;  // All records have been dealt with.
    bool hasDied = false;
  };
  /// What becomes of records that wait in the stream when a capture stops.
  enum class Queued { deliver, drop };

  // The capture: all that starts or stops it holds the lock.

  boost::asio::awaitable<goosestack::GooseResult<void>> start(std::string_view line = {}) {
    try {
      co_await endCapture(Queued::drop);
      if (kind_.followsInterface || !hasHome_) interface_ = host_.chooseInterface();
      hasHome_ = true;
      if (!line.empty()) log_(std::string(line) + interface_);
      auto run = std::make_shared<Run>(strand_);
      run->source = kind_.makeSource();
      auto stream = co_await run->source->start(interface_, eventsOf(run));
      if (!stream) co_return stream.error();
      run->cancel = stream->canceller();
      run_ = run;
      host_.spawn(drain(std::move(run), std::move(*stream)));
      co_return goosestack::GooseResult<void>();
    } catch (const std::exception& failure) {  // Descriptors, threads or memory have run out.
      co_return goosestack::GooseError::pcapOpenFailed(failure.what());
    }
  }

  typename Source::Events eventsOf(const std::shared_ptr<Run>& run) {
    typename Source::Events events;
    events.onDeath = [this, strand = strand_, weak = std::weak_ptr(run)](std::string reason) {
      boost::asio::post(strand, [this, weak, reason = std::move(reason)]() mutable {
        // A capture that was stopped meanwhile has no say any more.
        const auto dead = weak.lock();
        if (!dead || std::exchange(dead->hasDied, true)) return;
        host_.spawn(recover(std::move(reason)));
      });
    };
    events.onDrops = [log = log_, label = kind_.label,
                      interface = interface_](const goosestack::CaptureDrops& drops) {
      log(label + dropLine(interface, drops));
    };
    return events;
  }

  boost::asio::awaitable<void> endCapture(Queued queued) {
    if (!run_) co_return;
    if (queued == Queued::drop) run_->cancel();
    co_await run_->source->stop();
    co_await run_->ended.wait();
    run_.reset();
  }

  boost::asio::awaitable<void> stopIfUnused() {
    const auto lock = co_await lock_.lock();
    if (subscribers_.empty()) co_await endCapture(Queued::drop);
  }

  // Stops what is left of a dead capture and tells the truth before it tries again.
  boost::asio::awaitable<void> recover(std::string reason) {
    log("✗ capture on " + interface_ + " ended: " + reason);
    {
      const auto lock = co_await lock_.lock();
      if (isCapturing()) co_return;
      co_await endCapture(Queued::deliver);
    }
    host_.broadcastStatus();
    co_await retry();
  }

  // Whoever starts a capture meanwhile ends the tries.
  boost::asio::awaitable<void> retry() {
    if (std::exchange(isRetried_, true)) co_return;
    while (!subscribers_.empty() && !host_.isStopping()) {
      boost::system::error_code cancelled;
      pause_.expires_after(kind_.recoveryPause);
      co_await pause_.async_wait(
          boost::asio::redirect_error(boost::asio::use_awaitable, cancelled));
      const auto lock = co_await lock_.lock();
      if (isCapturing() || subscribers_.empty() || host_.isStopping()) break;
      const auto started = co_await start();
      if (!started) continue;
      log("✓ capture runs again on " + interface_);
      host_.broadcastStatus();
      break;
    }
    isRetried_ = false;
  }

  // The records' way.

  boost::asio::awaitable<void> drain(std::shared_ptr<Run> run,
                                     goosestack::MessageStream<Record> stream) {
    const std::shared_ptr<void> atEnd(nullptr, [run](void*) { run->ended.set(); });
    typename goosestack::MessageStream<Record>::Batch batch;
    // One burst at a time: other work of the actor comes between two.
    while (co_await stream.next(batch)) deliver(batch.records());
  }

  /// Here every record passes once, before the filters. Each client gets what it wants of the burst
  /// in one piece, so that its queue and its socket are visited once, however many events there
  /// are. An event is encoded at the first subscriber that wants it and shared by all others.
  void deliver(std::span<const Record> burst) {
    received_ += static_cast<std::int64_t>(burst.size());
    events_.assign(burst.size(), nullptr);
    for (const auto& [id, subscriber] : subscribers_) {
      wanted_.clear();
      for (std::size_t i = 0; i < burst.size(); ++i) {
        if (!subscriber.filter.matches(burst[i])) continue;
        if (!events_[i]) {
          events_[i] = toFrame(burst[i], kind_.encode);
          ++forwarded_;
        }
        wanted_.push_back(events_[i]);
      }
      subscriber.connection->sendBurst(wanted_);
    }
    events_.clear();
    wanted_.clear();
  }

  void log(const std::string& line) const { log_(kind_.label + line); }

  FeedHost& host_;
  Strand strand_;
  goosestack::LogSink log_;
  Kind kind_;
  std::map<ClientId, Subscriber> subscribers_;
  goosestack::AsyncMutex lock_;
  std::shared_ptr<Run> run_;
  std::string interface_;
  bool hasHome_ = false;  // The next start is on interface_, unless the feed follows.
  bool isRetried_ = false;
  boost::asio::steady_timer pause_;
  std::int64_t received_ = 0;
  std::int64_t forwarded_ = 0;
  std::vector<SharedTextFrame> events_;  // Of the burst; null where nobody has wanted one yet.
  std::vector<SharedTextFrame> wanted_;  // By one subscriber.
};

}  // namespace tarnlink
