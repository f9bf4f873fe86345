// The machinery that all receivers share: a capture thread that decodes each frame and yields the
// records into an asynchronous stream.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "goosestack/record_source.h"
#include "stack/async_mutex.h"
#include "stack/capture_loop.h"
#include "stack/pcap_access.h"

namespace goosestack {

/// Where the producer's end of a stream lives: used from the capture thread and from the
/// receiver's own calls, always under the lock.
template <class Record>
class ContinuationBox {
 public:
  using Continuation = std::shared_ptr<StreamState<Record>>;

  void store(Continuation continuation) {
    const std::lock_guard hold(lock_);
    _continuation = std::move(continuation);
  }
  Continuation copy() const {
    const std::lock_guard hold(lock_);
    return _continuation;
  }
  Continuation take() {
    const std::lock_guard hold(lock_);
    return std::exchange(_continuation, nullptr);
  }

 private:
  mutable std::mutex lock_;
  Continuation _continuation;
};

/// What the capture thread needs. It outlives a dropped receiver, whose frames it then ignores.
template <class Decoder>
class CaptureContext {
 public:
  using Record = typename Decoder::Record;

  explicit CaptureContext(std::shared_ptr<ContinuationBox<Record>> box) : box_(std::move(box)) {}

  /// Frames that do not decode vanish.
  void receiveFrame(ByteView frame, TimePoint receivedAt) {
    if (!decoder_.decode(frame, receivedAt, batch_.append())) return batch_.dropLast();
    batch_.weighLast();
    if (batch_.isFull()) flush();
  }

  bool hasRoom() const {
    const auto continuation = box_->copy();
    return !continuation || !continuation->isFull();
  }

  void flush() {
    if (batch_.empty()) return;
    if (const auto continuation = box_->copy()) {
      continuation->yield(batch_);
    } else {
      batch_.clear();
    }
  }

 private:
  std::shared_ptr<ContinuationBox<Record>> box_;
  Decoder decoder_;
  RecycledBatch<Record> batch_;
};

/// `Decoder` brings: the type Record, the text kEtherTypeHex, and
/// `bool decode(ByteView frame, TimePoint receivedAt, Record& record)`, which fills a record that
/// may hold remains of an earlier one.
///
/// An actor: its coroutines run on its own strand of the executor given, on which it also opens and
/// closes libpcap handles (some milliseconds each); give it one that may block so long. Make it
/// with std::make_shared.
template <class Decoder>
class CaptureReceiver final : public RecordSource<typename Decoder::Record>,
                              public std::enable_shared_from_this<CaptureReceiver<Decoder>> {
 public:
  using Record = typename Decoder::Record;
  using typename RecordSource<Record>::Events;

  /// `queueLimit` bounds the records that wait in the stream (octets of memory). From there on the
  /// capture reads nothing until half has been consumed, and the kernel drops what it has no room
  /// for. Without a limit a slow consumer costs memory, never frames.
  explicit CaptureReceiver(const boost::asio::any_io_executor& executor,
                           CaptureMode mode = CaptureMode::standard,
                           std::size_t queueLimit = StreamState<Record>::kUnbounded)
      : strand_(boost::asio::make_strand(executor)),
        mode_(mode),
        queueLimit_(queueLimit),
        turn_(strand_),
        continuationBox_(std::make_shared<ContinuationBox<Record>>()) {}

  boost::asio::awaitable<GooseResult<MessageStream<Record>>> start(std::string interface,
                                                                   Events events) override {
    co_return co_await boost::asio::co_spawn(
        strand_, startOnStrand(this->shared_from_this(), std::move(interface), std::move(events)),
        boost::asio::use_awaitable);
  }

  boost::asio::awaitable<void> stop() override {
    co_await boost::asio::co_spawn(strand_, stopOnStrand(this->shared_from_this()),
                                   boost::asio::use_awaitable);
  }

 private:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  using Self = std::shared_ptr<CaptureReceiver>;

  // The static coroutines hold the receiver alive through their first parameter.
  static boost::asio::awaitable<GooseResult<MessageStream<Record>>> startOnStrand(
      Self self, std::string interface, Events events) {
    const auto turn = co_await self->turn_.lock();
    co_await self->endCapture();
    auto handle =
        openPcapWithFilter(interface, Decoder::kEtherTypeHex, kSnapshotLength, self->mode_);
    if (!handle) co_return handle.error();
    auto continuation = std::make_shared<StreamState<Record>>(self->queueLimit_);
    continuation->onTermination(self->stopWhenStreamEnds(++self->captureNumber_));
    self->continuationBox_->store(continuation);
    self->beginCapture(std::move(*handle), std::move(events));
    co_return MessageStream<Record>(std::move(continuation));
  }

  static boost::asio::awaitable<void> stopOnStrand(Self self) {
    const auto turn = co_await self->turn_.lock();
    co_await self->endCapture();
  }

  // The end of one capture's stream must not stop a later capture.
  static boost::asio::awaitable<void> stopCapture(Self self, std::uint64_t captureNumber) {
    const auto turn = co_await self->turn_.lock();
    if (captureNumber == self->captureNumber_) co_await self->endCapture();
  }

  std::function<void()> stopWhenStreamEnds(std::uint64_t captureNumber) {
    return [weak = this->weak_from_this(), captureNumber] {
      auto self = weak.lock();
      if (!self) return;
      const auto strand = self->strand_;
      boost::asio::co_spawn(strand, stopCapture(std::move(self), captureNumber),
                            boost::asio::detached);
    };
  }

  void beginCapture(PcapHandle handle, Events events) {
    auto context = std::make_shared<CaptureContext<Decoder>>(continuationBox_);
    auto ended = std::make_shared<AsyncEvent>(strand_);
    loopEnded_ = ended;
    CaptureLoop::Handlers handlers;
    handlers.hasRoom = [context] { return context->hasRoom(); };
    handlers.onFrame = [context](ByteView frame, TimePoint receivedAt) {
      context->receiveFrame(frame, receivedAt);
    };
    handlers.onBurstEnd = [context] { context->flush(); };
    handlers.onDrops = [onDrops = std::move(events.onDrops)](const CaptureDrops& drops) {
      if (onDrops) onDrops(drops);
    };
    handlers.onEnd = [strand = strand_, ended,
                      onDeath = std::move(events.onDeath)](std::optional<std::string> death) {
      if (death && onDeath) onDeath(*std::move(death));
      boost::asio::post(strand, [ended] { ended->set(); });
    };
    loop_.emplace(std::move(handle), std::move(handlers));
  }

  boost::asio::awaitable<void> endCapture() {
    if (loop_) {
      loop_->breakLoop();
      co_await loopEnded_->wait();  // Then joining the thread takes no time.
      loop_.reset();
      loopEnded_.reset();
    }
    if (const auto continuation = continuationBox_->take()) continuation->finish();
  }

  Strand strand_;
  CaptureMode mode_;
  std::size_t queueLimit_;
  AsyncMutex turn_;
  std::uint64_t captureNumber_ = 0;
  std::shared_ptr<ContinuationBox<Record>> continuationBox_;
  std::optional<CaptureLoop> loop_;
  std::shared_ptr<AsyncEvent> loopEnded_;
};

}  // namespace goosestack
