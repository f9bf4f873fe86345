// The server's core: start and stop, connections, and the three ways of sending.
#include "server/bridge_server.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <mutex>
#include <utility>

#include "protocol/bridge_event_encoder.h"
#include "protocol/shortened.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

// Written by the actor, read by whoever draws a menu.
struct SharedText {
  std::mutex lock;
  std::string text;
};

SharedText& activeInterfaceCopy() {
  static SharedText copy;
  return copy;
}

// A close handshake is no error.
std::string endOf(const ClientId& id, const boost::system::error_code& error,
                  std::string_view failure) {
  if (error == WebSocketError::peerClosed) return "Client disconnected: " + toText(id);
  return std::string(failure) + toText(id) + ": " + error.message();
}

Feed<goosestack::GooseMessage, GooseFilter>::Kind gooseKind(const BridgePorts& ports) {
  return {.label = "[BridgeServer] ",
          .startLine = "[BridgeServer] starting capture on interface=",
          .followsInterface = true,
          .encode = &BridgeEventEncoder::gooseMessage,
          .makeSource = ports.makeGooseReceiver,
          .recoveryPause = ports.recoveryPause};
}

Feed<goosestack::SvCapturedFrame, SvFilter>::Kind svKind(const BridgePorts& ports) {
  return {.label = "[BridgeServer] SV: ",
          .startLine = {},
          .followsInterface = false,
          .encode = &BridgeEventEncoder::svApdu,
          .makeSource = ports.makeSvReceiver,
          .recoveryPause = ports.recoveryPause};
}

// Keeps the actor alive while one of its member coroutines runs.
asio::awaitable<void> holding(std::shared_ptr<BridgeServer> self, asio::awaitable<void> task) {
  co_await std::move(task);
  self.reset();
}

}  // namespace

/// Waits for the first decisive state of a listener. Used on the strand alone.
class BridgeServer::StartWait {
 public:
  explicit StartWait(const Strand& strand) : decided_(strand) {}

  void resolve(const TransportState& state) {
    if (decided_.isSet()) return;
    first_ = state;
    decided_.set();
  }

  asio::awaitable<TransportState> wait() {
    co_await decided_.wait();
    co_return first_;
  }

 private:
  goosestack::AsyncEvent decided_;
  TransportState first_;
};

BridgeServer::BridgeServer(const asio::any_io_executor& executor, BridgePorts ports,
                           std::string interfaceForThisRun)
    : strand_(asio::make_strand(executor)),
      ports_(std::move(ports)),
      tasks_(strand_, ports_.log),
      stopped_(strand_),
      memoryPause_(strand_),
      storeLock_(strand_),
      gooseFeed_(*this, strand_, ports_.log, gooseKind(ports_)),
      svFeed_(*this, strand_, ports_.log, svKind(ports_)),
      publications_(ports_) {
  if (ports_.authDelay) {
    authQueue_ = std::make_shared<AuthQueue>(strand_, *ports_.authDelay, ports_.log);
  }
  const bool isGiven = !interfaceForThisRun.empty();
  auto name = isGiven ? std::move(interfaceForThisRun)
                      : ports_.preferences.read(kActiveInterfaceKey).value_or("");
  if (name.empty()) return;
  log("[BridgeServer] restored active interface: " + shortened(name));
  rememberActiveInterface(std::move(name));
}

std::string BridgeServer::sharedActiveInterface() {
  auto& copy = activeInterfaceCopy();
  const std::lock_guard hold(copy.lock);
  return copy.text;
}

void BridgeServer::rememberActiveInterface(std::string name) {
  activeInterface_ = std::move(name);
  auto& copy = activeInterfaceCopy();
  const std::lock_guard hold(copy.lock);
  copy.text = activeInterface_;
}

// Start and stop -----------------------------------------------------------------------------

asio::awaitable<BridgeResult<void>> BridgeServer::start(std::uint16_t port) {
  co_return co_await asio::co_spawn(strand_, startOnStrand(shared_from_this(), port),
                                    asio::use_awaitable);
}

asio::awaitable<BridgeResult<void>> BridgeServer::startOnStrand(std::shared_ptr<BridgeServer> self,
                                                                std::uint16_t port) {
  if (self->isStopping_) co_return BridgeError::cancelled();
  if (self->listener_) co_return BridgeResult<void>();
  if (!self->ports_.transport.acceptsPort(port)) co_return BridgeError::invalidPort(port);
  const auto made = self->ports_.transport.makeListener(port);
  if (!made) co_return BridgeError::transport(made.error());
  const auto& listener = *made;
  self->listener_ = listener;
  self->activePort_ = port;

  auto wait = std::make_shared<StartWait>(self->strand_);
  const std::weak_ptr<BridgeServer> weak = self;
  auto onState = [weak, wait, port, strand = self->strand_](const TransportState& state) {
    asio::post(strand, [weak, wait, port, state] {
      if (const auto server = weak.lock()) server->handleListenerState(port, state);
      wait->resolve(state);
    });
  };
  auto onConnection = [weak, strand = self->strand_](Connection connection) {
    asio::post(strand, [weak, connection = std::move(connection)]() mutable {
      if (const auto server = weak.lock()) server->acceptConnection(std::move(connection));
    });
  };
  listener->start(std::move(onState), std::move(onConnection));

  const TransportState state = co_await wait->wait();
  if (const auto* failed = std::get_if<TransportFailed>(&state)) {
    co_return BridgeError::transport(failed->error);
  }
  // stop() may have begun meanwhile, and may even be over.
  const bool isOurs = self->listener_ == listener && !self->isStopping_;
  if (std::holds_alternative<TransportCancelled>(state) || !isOurs) {
    co_return BridgeError::cancelled();
  }
  if (self->ports_.makeAdvertiser) {
    self->advertiser_ = self->ports_.makeAdvertiser(port);
    if (self->advertiser_) self->advertiser_->start();
  }
  co_return BridgeResult<void>();
}

void BridgeServer::handleListenerState(std::uint16_t port, const TransportState& state) {
  if (std::holds_alternative<TransportReady>(state)) {
    log("[BridgeServer] Listening on port " + std::to_string(port));
  } else if (const auto* failed = std::get_if<TransportFailed>(&state)) {
    log("[BridgeServer] Listener failed: " + failed->error.message());
    listener_.reset();
  }
}

asio::awaitable<void> BridgeServer::stop() {
  co_await asio::co_spawn(strand_, stopOnStrand(shared_from_this()), asio::use_awaitable);
}

asio::awaitable<void> BridgeServer::stopOnStrand(std::shared_ptr<BridgeServer> self) {
  if (self->isStopping_) {
    co_await self->stopped_.wait();
    co_return;
  }
  self->isStopping_ = true;
  self->stopped_.reset();
  if (self->authQueue_) self->authQueue_->withdrawAll();
  self->memoryPause_.cancel();
  self->publications_.cancelLinks();
  co_await self->gooseFeed_.stop();
  co_await self->publications_.stopGoose();
  co_await self->svFeed_.stop();
  co_await self->publications_.stopSv();
  for (const auto& [id, connection] : self->connections_) connection->cancel();
  self->connections_.clear();
  if (self->listener_) self->listener_->cancel();
  self->listener_.reset();
  if (self->advertiser_) self->advertiser_->stop();
  self->advertiser_.reset();
  co_await self->tasks_.join();
  self->log("[BridgeServer] Stopped");
  self->isStopping_ = false;
  self->stopped_.set();
}

// Connections --------------------------------------------------------------------------------

// Without clients nothing piles up: an idle bridge never wakes.
asio::awaitable<void> BridgeServer::keepMemorySmall() {
  while (!connections_.empty() && !isStopping_) {
    boost::system::error_code cancelled;
    memoryPause_.expires_after(ports_.memoryPause);
    co_await memoryPause_.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
    ports_.returnFreeMemory();
  }
  keepsMemorySmall_ = false;
}

void BridgeServer::acceptConnection(Connection connection) {
  // One that was accepted just before the listener closed comes late, perhaps after stop().
  if (isStopping_ || !listener_) {
    connection->cancel();
    return;
  }
  const ClientId id = makeClientId();
  connections_.emplace(id, connection);
  if (ports_.returnFreeMemory && !std::exchange(keepsMemorySmall_, true)) spawn(keepMemorySmall());
  const auto weak = weak_from_this();
  auto onState = [weak, id, strand = strand_](const TransportState& state) {
    asio::post(strand, [weak, id, state] {
      if (const auto self = weak.lock()) self->handleConnectionState(id, state);
    });
  };
  auto onSendError = [weak, strand = strand_](const boost::system::error_code& error) {
    asio::post(strand, [weak, error] {
      if (const auto self = weak.lock()) self->log("[BridgeServer] Send error: " + error.message());
    });
  };
  connection->start(std::move(onState), std::move(onSendError));
}

void BridgeServer::handleConnectionState(const ClientId& id, const TransportState& state) {
  const auto found = connections_.find(id);
  if (std::holds_alternative<TransportReady>(state)) {
    if (found == connections_.end()) return;
    log("[BridgeServer] Client connected: " + toText(id));
    tasks_.spawn(serve(weak_from_this(), id, found->second));
    return;
  }
  // A client that has been removed already has had its line.
  if (found == connections_.end()) return removeConnection(id);
  if (const auto* failed = std::get_if<TransportFailed>(&state)) {
    log("[BridgeServer] Client " + toText(id) + " failed: " + failed->error.message() +
        (failed->detail.empty() ? "" : " (" + failed->detail + ")"));
  } else if (const auto* lost = std::get_if<TransportLost>(&state)) {
    log("[BridgeServer] " + endOf(id, lost->error, "Lost client "));
    found->second->cancel();
  }
  removeConnection(id);
}

// However the loop ends, its client is removed: it would be deaf, and stay subscribed.
asio::awaitable<void> BridgeServer::serve(std::weak_ptr<BridgeServer> weak, ClientId id,
                                          Connection connection) {
  std::exception_ptr failure;
  try {
    co_await receiveLoop(weak, id, connection);
  } catch (...) {
    failure = std::current_exception();
  }
  const auto self = weak.lock();
  if (self && self->connections_.contains(id)) {
    self->removeConnection(id);
    connection->cancel();
  }
  if (failure) std::rethrow_exception(failure);
}

asio::awaitable<void> BridgeServer::receiveLoop(std::weak_ptr<BridgeServer> weak, ClientId id,
                                                Connection connection) {
  while (true) {
    auto message = co_await connection->receive();
    const auto self = weak.lock();
    // A client that was removed, or a server that stopped, ends the loop without a line.
    if (!self || !self->connections_.contains(id)) co_return;
    if (!message) {
      self->log("[BridgeServer] " + endOf(id, message.error(), "Receive error from "));
      co_return;
    }
    if (message->isText) co_await self->handleText(std::move(message->data), id);
  }
}

void BridgeServer::removeConnection(const ClientId& id) {
  connections_.erase(id);
  authenticatedConnections_.erase(id);
  owners_.erase(id);
  if (authQueue_) authQueue_->withdraw(id);
  gooseFeed_.remove(id);
  svFeed_.remove(id);
}

// Member coroutines hold the actor only while somebody awaits them.
void BridgeServer::spawn(asio::awaitable<void> task) {
  tasks_.spawn(holding(shared_from_this(), std::move(task)));
}

// Sending ------------------------------------------------------------------------------------

void BridgeServer::sendText(std::string_view text, const ClientId& id) {
  const auto found = connections_.find(id);
  if (found != connections_.end()) found->second->send(TextFrame::copyOf(text));
}

bool BridgeServer::broadcast(std::string_view text, const std::optional<ClientId>& except) {
  const auto frame = TextFrame::copyOf(text);
  for (const auto& [id, connection] : connections_) {
    if (id == except) continue;
    SharedTextFrame shared = frame;
    connection->sendBurst({&shared, 1});
  }
  return !connections_.empty();
}

std::string BridgeServer::statusEvent() const {
  BridgeStatus status;
  status.isCapturing = gooseFeed_.isCapturing();
  status.activeInterface = activeInterface_;
  status.messagesReceived = gooseFeed_.received();
  status.messagesPublished = publications_.goosePublished();
  return BridgeEventEncoder::bridgeStatus(status);
}

}  // namespace tarnlink
