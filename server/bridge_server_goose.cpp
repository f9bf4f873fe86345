// GOOSE subscriptions and the capture behind them.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

#include "protocol/bridge_event_encoder.h"
#include "protocol/error_code.h"
#include "protocol/shortened.h"
#include "server/bridge_server.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

using GooseCapture = CaptureControl<goosestack::GooseMessage>;

// What the capture is tried on where discovery finds nothing.
constexpr const char* kLastResortInterface = "en0";

asio::awaitable<void> storeInterface(PreferenceStore& preferences, std::string name) {
  preferences.write(kActiveInterfaceKey, name);
  co_return;
}

}  // namespace

void BridgeServer::chooseInterface() {
  if (!activeInterface_.empty()) return;
  const auto listed = ports_.listInterfaces(BridgePorts::Names::fallback);
  rememberActiveInterface(listed.empty() ? kLastResortInterface : listed.front().name);
  // Else nobody would learn of it but the client whose command needs an interface.
  for (const auto& owner : owners_) sendText(statusEvent(), owner);
}

asio::awaitable<Reply> BridgeServer::handleSubscribeGoose(std::optional<std::string> appIdFilter,
                                                          std::optional<std::string> goCBRef,
                                                          ClientId client) {
  const auto connection = connections_.find(client);
  if (connection == connections_.end()) co_return std::string();
  gooseSubscribers_.insert_or_assign(
      client,
      Subscriber<GooseFilter>{{std::move(appIdFilter), std::move(goCBRef)}, connection->second});

  const auto turn = co_await gooseCapture_.turn();
  // The client may have left while others started or stopped the capture.
  if (!gooseSubscribers_.contains(client) || isStopping_) co_return std::string();
  if (gooseCapture_.isCapturing()) {
    log("[BridgeServer] already capturing on " + activeInterface_ + " — new subscriber joined");
    co_return statusEvent();
  }
  chooseInterface();
  log("[BridgeServer] starting capture on interface=" + activeInterface_);
  const auto started = co_await startCaptureInternal();
  if (!started) {
    const std::string description = started.error().description();
    log("[BridgeServer] ✗ capture start failed: " + description);
    gooseSubscribers_.erase(client);
    co_return CommandError::because(description, ErrorCode::captureFailed,
                                    "Start capture failed: ");
  }
  log("[BridgeServer] ✓ capture started");
  // Nobody may be left to listen by now.
  if (gooseSubscribers_.empty()) co_await gooseCapture_.stop(GooseCapture::Queued::drop);
  // The others have been told that theirs had died.
  if (gooseCapture_.isRetried) broadcast(statusEvent(), client);
  co_return statusEvent();
}

asio::awaitable<Reply> BridgeServer::handleUnsubscribeGoose(ClientId id) {
  gooseSubscribers_.erase(id);
  if (gooseSubscribers_.empty()) co_await stopCaptureIfNeeded();
  broadcastStatus();
  co_return std::string();
}

asio::awaitable<goosestack::GooseResult<void>> BridgeServer::startCaptureInternal() {
  chooseInterface();
  GooseCapture::Events events;
  events.onRecords = [weak = weak_from_this()](std::span<goosestack::GooseMessage> messages) {
    if (const auto self = weak.lock()) self->dispatchGooseMessages(messages);
  };
  events.onDeath = [weak = weak_from_this()](const std::string& reason) {
    if (const auto self = weak.lock()) self->spawn(self->recoverGooseCapture(reason));
  };
  events.onDrops = dropLog("[BridgeServer] ", activeInterface_);
  co_return co_await orFailure(gooseCapture_.start(activeInterface_, std::move(events)));
}

asio::awaitable<void> BridgeServer::stopCaptureIfNeeded() {
  const auto turn = co_await gooseCapture_.turn();
  if (!gooseSubscribers_.empty()) co_return;  // Somebody came meanwhile.
  co_await gooseCapture_.stop(GooseCapture::Queued::drop);
}

asio::awaitable<void> BridgeServer::setActiveInterface(std::string name) {
  auto onStrand = [](std::shared_ptr<BridgeServer> self,
                     std::string wanted) -> asio::awaitable<void> {
    co_await self->setActiveInterfaceOnStrand(std::move(wanted));
  };
  co_await asio::co_spawn(strand_, onStrand(shared_from_this(), std::move(name)),
                          asio::use_awaitable);
}

asio::awaitable<void> BridgeServer::setActiveInterfaceOnStrand(std::string name) {
  rememberActiveInterface(name);
  {
    // Whoever comes last stores the choice that counts, whichever that is.
    const auto turn = co_await storeTurn_.lock();
    co_await asio::co_spawn(ports_.blockingExecutor,
                            storeInterface(ports_.preferences, activeInterface_),
                            asio::use_awaitable);
  }
  log("[BridgeServer] active interface set to " + shortened(name));
  {
    const auto turn = co_await gooseCapture_.turn();
    if (gooseCapture_.isCapturing()) co_await gooseCapture_.stop(GooseCapture::Queued::deliver);
    // Subscribers are counted after the stop: the last one may have left meanwhile, and others may
    // still wait for a capture that could not start.
    if (!gooseSubscribers_.empty() && !isStopping_) {
      const auto started = co_await startCaptureInternal();
      if (!started) {
        log("[BridgeServer] ✗ capture start failed: " + started.error().description());
        spawn(retryGooseCapture());
      }
    }
  }
  broadcastStatus();
}

void BridgeServer::dispatchGooseMessages(std::span<const goosestack::GooseMessage> messages) {
  messagesReceived_ += static_cast<std::int64_t>(messages.size());
  const auto wants = [](const GooseFilter& filter, const goosestack::GooseMessage& message) {
    return filter.matches(message);
  };
  const auto encode = [](const goosestack::GooseMessage& message) {
    JsonWriter writer(TextFrame::kHeaderRoom);
    BridgeEventEncoder::gooseMessage(message, writer);
    return toFrame(std::move(writer));
  };
  fanOut_.send(messages, gooseSubscribers_, wants, encode);
}

}  // namespace tarnlink
