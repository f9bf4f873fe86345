// The machinery that all receivers share: a capture thread that decodes each frame and yields the
// records into an asynchronous stream.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "goosestack/record_source.h"
#include "stack/capture_loop.h"
#include "stack/pcap_access.h"

namespace goosestack {

/// Decodes on the capture thread. `Decoder` is as CaptureReceiver has it.
template <class Decoder>
class DecodingSink final : public CaptureSink {
 public:
  using Record = typename Decoder::Record;

  DecodingSink(std::shared_ptr<StreamState<Record>> stream,
               typename RecordSource<Record>::Events events)
      : stream_(std::move(stream)), events_(std::move(events)) {}

  /// Frames that do not decode vanish.
  void takeFrame(ByteView frame, TimePoint receivedAt) override {
    if (!decoder_.decode(frame, receivedAt, batch_.append())) return batch_.dropLast();
    batch_.weighLast();
    if (batch_.isFull()) hasRoom_ = stream_->yield(batch_);
  }
  bool endBurst() override {
    if (!batch_.empty()) hasRoom_ = stream_->yield(batch_);
    return hasRoom_;
  }
  bool hasRoom() override { return hasRoom_ = !stream_->isFull(); }
  void tellDrops(const CaptureDrops& drops) override {
    if (events_.onDrops) events_.onDrops(drops);
  }
  void tellDeath(std::string reason) override {
    if (events_.onDeath) events_.onDeath(std::move(reason));
  }

 private:
  const std::shared_ptr<StreamState<Record>> stream_;
  const typename RecordSource<Record>::Events events_;
  Decoder decoder_;
  RecycledBatch<Record> batch_;
  bool hasRoom_ = true;
};

/// `Decoder` brings: the type Record, the text kEtherTypeHex, and
/// `bool decode(ByteView frame, TimePoint receivedAt, Record& record)`, which fills a record that
/// may hold remains of an earlier one.
///
/// libpcap handles are opened and closed, and threads joined, on the executor given (some
/// milliseconds each); give it one that may block so long.
template <class Decoder>
class CaptureReceiver final : public RecordSource<typename Decoder::Record> {
 public:
  using Record = typename Decoder::Record;
  using typename RecordSource<Record>::Events;

  /// `queueLimit` bounds the records that wait in the stream (octets of memory). From there on the
  /// capture reads nothing until half has been consumed, and the kernel drops what it has no room
  /// for. Without a limit a slow consumer costs memory, never frames.
  explicit CaptureReceiver(boost::asio::any_io_executor executor, CaptureMode mode,
                           std::size_t queueLimit)
      : executor_(std::move(executor)), mode_(mode), queueLimit_(queueLimit) {}

  boost::asio::awaitable<GooseResult<MessageStream<Record>>> start(std::string interface,
                                                                   Events events) override {
    co_return co_await boost::asio::co_spawn(
        executor_, open(std::move(interface), std::move(events)), boost::asio::use_awaitable);
  }

  boost::asio::awaitable<void> stop() override {
    co_await boost::asio::co_spawn(executor_, close(), boost::asio::use_awaitable);
  }

 private:
  // On the executor: these block.
  boost::asio::awaitable<GooseResult<MessageStream<Record>>> open(std::string interface,
                                                                  Events events) {
    end();
    auto handle = openPcapWithFilter(interface, Decoder::kEtherTypeHex, kSnapshotLength, mode_);
    if (!handle) co_return handle.error();
    stream_ = std::make_shared<StreamState<Record>>(queueLimit_);
    auto sink = std::make_unique<DecodingSink<Decoder>>(stream_, std::move(events));
    loop_ = std::make_shared<CaptureLoop>(std::move(*handle), std::move(sink));
    stream_->onTermination([weak = std::weak_ptr(loop_)] {
      if (const auto loop = weak.lock()) loop->breakLoop();
    });
    co_return MessageStream<Record>(stream_);
  }

  boost::asio::awaitable<void> close() {
    end();
    co_return;
  }

  void end() {
    loop_.reset();
    if (const auto stream = std::exchange(stream_, nullptr)) stream->finish();
  }

  const boost::asio::any_io_executor executor_;
  const CaptureMode mode_;
  const std::size_t queueLimit_;
  std::shared_ptr<StreamState<Record>> stream_;
  std::shared_ptr<CaptureLoop> loop_;
};

}  // namespace goosestack
