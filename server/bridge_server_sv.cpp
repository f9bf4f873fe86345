// Sampled Values bridging: payloads pass undecoded, both ways.
#include <string>
#include <utility>

#include "goosestack/interface_name.h"
#include "protocol/bridge_event_encoder.h"
#include "protocol/error_code.h"
#include "server/bridge_server.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

using SvCapture = CaptureControl<goosestack::SvCapturedFrame>;

std::optional<std::int64_t> appIdOf(const goosestack::SvCapturedFrame& frame) {
  if (frame.pdu.size() < 2) return std::nullopt;
  return frame.pdu[0] << 8 | frame.pdu[1];
}

CommandError failedPublication(const goosestack::GooseError& error) {
  return CommandError::because(error.description(), ErrorCode::svPublishFailed,
                               "SV publish failed: ");
}

}  // namespace

asio::awaitable<Reply> BridgeServer::handleSubscribeSv(std::optional<std::int64_t> appIdFilter,
                                                       ClientId client) {
  const auto connection = connections_.find(client);
  if (connection == connections_.end()) co_return std::string();
  if (svSubscribers_.empty()) svInterface_.clear();
  svSubscribers_.insert_or_assign(
      client, Subscriber<std::optional<std::int64_t>>{appIdFilter, connection->second});

  const auto turn = co_await svCapture_.turn();
  // The client may have left while others started or stopped the capture.
  if (!svSubscribers_.contains(client) || isStopping_) co_return std::string();
  if (svCapture_.isCapturing()) {
    svInterface_ = svCapture_.interface();
    log("[BridgeServer] SV: client " + toText(client) + " joined existing capture");
    co_return std::string();
  }
  const auto started = co_await startSvCapture();
  if (!started) {
    const std::string description = started.error().description();
    svSubscribers_.erase(client);
    log("[BridgeServer] SV: capture start failed: " + description);
    co_return CommandError::because(description, ErrorCode::svCaptureFailed, "SV capture failed: ");
  }
  log("[BridgeServer] SV: capture started on " + svCapture_.interface());
  // The others have been told that theirs had died.
  if (svCapture_.isRetried) broadcastStatus();
  // Nobody may be left to listen by now.
  if (svSubscribers_.empty()) co_await svCapture_.stop(SvCapture::Queued::drop);
  co_return std::string();
}

asio::awaitable<goosestack::GooseResult<void>> BridgeServer::startSvCapture() {
  if (svInterface_.empty()) {
    chooseInterface();
    svInterface_ = activeInterface_;
  }
  SvCapture::Events events;
  events.onRecords = [weak = weak_from_this()](std::span<goosestack::SvCapturedFrame> frames) {
    if (const auto self = weak.lock()) self->forwardSvFrames(frames);
  };
  events.onDeath = [weak = weak_from_this()](const std::string& reason) {
    if (const auto self = weak.lock()) self->spawn(self->recoverSvCapture(reason));
  };
  events.onDrops = dropLog("[BridgeServer] SV: ", svInterface_);
  co_return co_await orFailure(svCapture_.start(svInterface_, std::move(events)));
}

asio::awaitable<void> BridgeServer::stopSvCaptureIfNeeded() {
  const auto turn = co_await svCapture_.turn();
  if (!svSubscribers_.empty()) co_return;  // Somebody came meanwhile.
  co_await svCapture_.stop(SvCapture::Queued::drop);
}

void BridgeServer::forwardSvFrames(std::span<const goosestack::SvCapturedFrame> frames) {
  const auto wants = [](std::optional<std::int64_t> filter,
                        const goosestack::SvCapturedFrame& frame) {
    const auto appId = appIdOf(frame);
    return !filter || !appId || *filter == *appId;
  };
  const auto encode = [](const goosestack::SvCapturedFrame& frame) {
    JsonWriter writer(TextFrame::kHeaderRoom);
    BridgeEventEncoder::svApdu(frame, writer);
    return toFrame(std::move(writer));
  };
  svFramesForwarded_ +=
      static_cast<std::int64_t>(fanOut_.send(frames, svSubscribers_, wants, encode));
}

asio::awaitable<Reply> BridgeServer::handlePublishSvApdu(goosestack::Bytes pdu,
                                                         goosestack::SvPublishConfig config) {
  const auto made = ensureMade(svPublisher_, ports_.makeSvPublisher);
  if (!made) co_return failedPublication(made.error());
  if (!goosestack::isValidInterfaceName(config.interface))
    co_return invalidInterfaceName(config.interface);
  config.interface = outgoingInterface(config.interface);
  const auto publisher = svPublisher_;
  const auto published =
      co_await orFailure(publisher->publishApdu(std::move(pdu), std::move(config)));
  if (!published) co_return failedPublication(published.error());
  ++svFramesPublished_;
  co_return std::string();
}

}  // namespace tarnlink
