// The server's commands: decoding, the authentication gate and the dispatch.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>
#include <exception>
#include <string>
#include <utility>
#include <variant>

#include "goosestack/interface_name.h"
#include "protocol/bridge_event_encoder.h"
#include "protocol/error_code.h"
#include "protocol/shortened.h"
#include "server/bridge_server.h"
#include "server/pairing_code.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

std::string orStar(const std::optional<std::string>& text) {
  return shortened(text.value_or("*"));
}
std::string orStar(const std::optional<std::int64_t>& number) {
  return number ? std::to_string(*number) : "*";
}

template <class Payload>
bool isA(const BridgeRequest& request) {
  return request.command && std::holds_alternative<Payload>(request.command->payload);
}

// What the capture is tried on where discovery finds nothing.
constexpr const char* kLastResortInterface = "en0";

asio::awaitable<void> storeInterface(PreferenceStore& preferences, std::string name) {
  preferences.write(kActiveInterfaceKey, name);
  co_return;
}

asio::awaitable<std::string> readPairingCode(PreferenceStore& preferences) {
  co_return pairingCode(preferences);
}

asio::awaitable<std::vector<goosestack::NetworkInterfaceInfo>> listWithNames(
    std::function<std::vector<goosestack::NetworkInterfaceInfo>(BridgePorts::Names)> list) {
  co_return list(BridgePorts::Names::display);
}

}  // namespace

/// A client's attempt to authenticate that may have to wait in the queue, and what it sends
/// meanwhile. It is read on, so that its pings are answered and its leaving is noticed.
struct BridgeServer::Backlog {
  /// Commands held. With one more, the client is read no further until all are served.
  static constexpr std::size_t kMaxRequests = 8;

  explicit Backlog(const Strand& strand) : over(strand) {}

  std::deque<BridgeRequest> requests;
  bool isWaiting = false;  // In the queue.
  goosestack::AsyncEvent over;
};

asio::awaitable<void> BridgeServer::handleText(std::string text, ClientId id) {
  if (isStopping_) co_return;
  auto request = BridgeRequest::fromText(text);
  for (auto held = backlogs_.find(id); held != backlogs_.end(); held = backlogs_.find(id)) {
    const auto backlog = held->second;
    if (backlog->isWaiting && isA<BridgeCommand::Ping>(request)) break;
    if (backlog->requests.size() < Backlog::kMaxRequests) {
      backlog->requests.push_back(std::move(request));
      co_return;
    }
    co_await backlog->over.wait();
    if (!connections_.contains(id) || isStopping_) co_return;
  }
  if (isA<BridgeCommand::Auth>(request) &&
      mustQueue(std::get<BridgeCommand::Auth>(request.command->payload), id)) {
    const auto backlog = std::make_shared<Backlog>(strand_);
    backlog->requests.push_back(std::move(request));
    backlogs_.emplace(id, backlog);
    spawn(serveBacklog(id, backlog));
    co_return;
  }
  co_await serveRequest(std::move(request), id);
}

asio::awaitable<void> BridgeServer::serveBacklog(ClientId id, std::shared_ptr<Backlog> backlog) {
  while (!backlog->requests.empty() && connections_.contains(id) && !isStopping_) {
    BridgeRequest request = std::move(backlog->requests.front());
    backlog->requests.pop_front();
    co_await serveRequest(std::move(request), id);
  }
  backlogs_.erase(id);
  backlog->over.set();
}

asio::awaitable<void> BridgeServer::serveRequest(BridgeRequest request, ClientId id) {
  Reply reply;
  try {
    reply = co_await execute(std::move(request.command), id);
  } catch (const std::exception& failure) {
    reply = CommandError::because(failure.what(), ErrorCode::systemFailed, "Command failed: ");
  }
  if (connections_.contains(id)) answer(request, std::move(reply), id);
}

asio::awaitable<Reply> BridgeServer::execute(BridgeCommand::Result command, ClientId id) {
  if (!command) {
    co_return CommandError{ErrorCode::undecodable, "Invalid JSON command",
                           command.error().reason()};
  }
  auto& payload = command->payload;
  const bool needsNoPairing = std::holds_alternative<BridgeCommand::Ping>(payload) ||
                              std::holds_alternative<BridgeCommand::Auth>(payload);
  if (!needsNoPairing && !authenticatedConnections_.contains(id)) {
    co_return CommandError{ErrorCode::notAuthenticated,
                           "Not authenticated — send auth with pairing code",
                           "an auth with the pairing code has to succeed first"};
  }
  co_return co_await std::visit([this, &id](auto& wanted) { return handle(std::move(wanted), id); },
                                payload);
}

// A command with a mark ends in exactly one event, which carries it.
void BridgeServer::answer(const BridgeRequest& request, Reply reply, const ClientId& id) {
  const auto& mark = request.id;
  std::string event;
  if (reply) {
    // stop() has ended an auth that waited, or the first frame from a publication.
    if (reply->empty() && (!mark || isStopping_)) return;
    event = reply->empty() ? BridgeEventEncoder::done() : std::move(*reply);
  } else {
    const CommandError& failure = reply.error();
    // What strangers send is no news, and must not fill the log.
    // A capture that did not start has had a line.
    const bool hasLine =
        failure.code == ErrorCode::captureFailed || failure.code == ErrorCode::svCaptureFailed;
    if (authenticatedConnections_.contains(id) && !hasLine) {
      log("[BridgeServer] ✗ client " + toText(id) + ": " + failure.message +
          (failure.message.ends_with(failure.reason) ? "" : " (" + failure.reason + ")"));
    }
    event = BridgeEventEncoder::error(failure.message, failure.code,
                                      request.wantsReason ? failure.reason : "");
  }
  if (mark) event = BridgeEventEncoder::marked(std::move(event), *mark);
  sendText(event, id);
}

// False when the client has gone, or goes because too many attempts wait already: an answer would
// say that its code is wrong.
asio::awaitable<bool> BridgeServer::waitInAuthQueue(ClientId id) {
  const auto connection = connections_.at(id);
  const auto backlog = backlogs_.at(id);
  backlog->isWaiting = true;
  connection->setStanding(Standing::waiting);
  const auto outcome = co_await authQueue_->wait(id, connection->peer());
  connection->setStanding(Standing::stranger);
  backlog->isWaiting = false;
  if (outcome == AuthQueue::Outcome::tooMany && connections_.contains(id)) {
    log("[BridgeServer] client " + toText(id) + " dropped: too many attempts to authenticate wait");
    removeConnection(id);
    connection->cancel();
  }
  co_return outcome == AuthQueue::Outcome::yours && !isStopping_;
}

bool BridgeServer::isOwnersToken(std::string_view token) const {
  return !ports_.ownerToken.empty() && equalsInConstantTime(ports_.ownerToken, token);
}

// Who has shown the code already learns nothing from another comparison.
bool BridgeServer::mustQueue(const BridgeCommand::Auth& command, const ClientId& id) const {
  return authQueue_ && !authenticatedConnections_.contains(id) && !isOwnersToken(command.token);
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::Auth command, ClientId id) {
  const bool isOwner = isOwnersToken(command.token);
  const bool mustWait = mustQueue(command, id);
  if (mustWait) {
    const bool mayTry = co_await waitInAuthQueue(id);
    if (!mayTry) co_return std::string();
  }
  const auto code = co_await asio::co_spawn(
      ports_.blockingExecutor, readPairingCode(ports_.preferences), asio::use_awaitable);
  const bool ok = isOwner || equalsInConstantTime(code, command.token);
  if (mustWait) authQueue_->tell(id, ok);
  if (!connections_.contains(id)) {
    if (mustWait) authQueue_->withdraw(id);
    co_return std::string();
  }
  if (ok) {
    authenticatedConnections_.insert(id);
    connections_.at(id)->setStanding(Standing::admitted);
  }
  if (isOwner) {
    owners_.insert(id);
    // Behind the answer.
    asio::post(strand_, [weak = weak_from_this(), id] {
      if (const auto self = weak.lock()) self->sendText(self->statusEvent(), id);
    });
  }
  log("[BridgeServer] client " + toText(id) + (ok ? " authenticated" : " auth failed"));
  co_return BridgeEventEncoder::authResult(ok);
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::Ping command, ClientId) {
  co_return BridgeEventEncoder::pong(command.timestamp);
}

// Captured traffic -----------------------------------------------------------------------------

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::SubscribeGoose command, ClientId id) {
  using Subscribed = decltype(gooseFeed_)::Subscribed;
  log("[BridgeServer] ← subscribe_goose appId=" + orStar(command.appIdFilter) +
      " goCBRef=" + orStar(command.goCBRefFilter));
  GooseFilter filter{std::move(command.appIdFilter), std::move(command.goCBRefFilter)};
  const auto done = co_await gooseFeed_.subscribe(id, std::move(filter), connections_.at(id));
  if (!done) {
    const std::string description = done.error().description();
    log("[BridgeServer] ✗ capture start failed: " + description);
    co_return CommandError::because(description, ErrorCode::captureFailed,
                                    "Start capture failed: ");
  }
  if (*done == Subscribed::gone) co_return std::string();
  if (*done == Subscribed::joined) {
    log("[BridgeServer] already capturing on " + activeInterface_ + " — new subscriber joined");
  } else {
    log("[BridgeServer] ✓ capture started");
  }
  if (*done == Subscribed::revived) broadcast(statusEvent(), id);
  co_return statusEvent();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::UnsubscribeGoose, ClientId id) {
  log("[BridgeServer] ← unsubscribe_goose");
  co_await gooseFeed_.unsubscribe(id);
  broadcastStatus();
  co_return std::string();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::SubscribeSv command, ClientId id) {
  using Subscribed = decltype(svFeed_)::Subscribed;
  log("[BridgeServer] ← subscribe_sv appId=" + orStar(command.appIdFilter));
  const auto done =
      co_await svFeed_.subscribe(id, SvFilter{command.appIdFilter}, connections_.at(id));
  if (!done) {
    const std::string description = done.error().description();
    log("[BridgeServer] SV: capture start failed: " + description);
    co_return CommandError::because(description, ErrorCode::svCaptureFailed, "SV capture failed: ");
  }
  if (*done == Subscribed::gone) co_return std::string();
  if (*done == Subscribed::joined) {
    log("[BridgeServer] SV: client " + toText(id) + " joined existing capture");
  } else {
    log("[BridgeServer] SV: capture started on " + svFeed_.interface());
  }
  if (*done == Subscribed::revived) broadcastStatus();
  co_return std::string();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::UnsubscribeSv, ClientId id) {
  log("[BridgeServer] ← unsubscribe_sv");
  co_await svFeed_.unsubscribe(id);
  co_return std::string();
}

// Publishing -----------------------------------------------------------------------------------

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::PublishGoose command, ClientId) {
  log("[BridgeServer] ← publish_goose appId=" + std::to_string(command.config.appId));
  const auto done =
      co_await publications_.publishGoose(std::move(command.config), activeInterface_);
  if (!done) co_return done.error();
  if (isStopping_) co_return std::string();
  co_return statusEvent();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::UnpublishGoose command, ClientId) {
  log("[BridgeServer] ← unpublish_goose goCBRef=" + orStar(command.goCBRef));
  co_await publications_.unpublishGoose(std::move(command.goCBRef));
  co_return statusEvent();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::PublishSvApdu command, ClientId) {
  const auto done = co_await publications_.publishSv(std::move(command.pdu),
                                                     std::move(command.config), activeInterface_);
  if (!done) co_return done.error();
  co_return std::string();
}

// The active interface -------------------------------------------------------------------------

const std::string& BridgeServer::chooseInterface() {
  if (!activeInterface_.empty()) return activeInterface_;
  const auto listed = ports_.listInterfaces(BridgePorts::Names::fallback);
  rememberActiveInterface(listed.empty() ? kLastResortInterface : listed.front().name);
  // Else nobody would learn of it but the client whose command needs an interface.
  for (const auto& owner : owners_) sendText(statusEvent(), owner);
  return activeInterface_;
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
    const auto lock = co_await storeLock_.lock();
    co_await asio::co_spawn(ports_.blockingExecutor,
                            storeInterface(ports_.preferences, activeInterface_),
                            asio::use_awaitable);
  }
  log("[BridgeServer] active interface set to " + shortened(name));
  co_await gooseFeed_.move();
  broadcastStatus();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::SetInterface command, ClientId) {
  log("[BridgeServer] ← set_interface name=" + shortened(command.name));
  if (!goosestack::isValidInterfaceName(command.name)) co_return invalidInterfaceName(command.name);
  co_await setActiveInterfaceOnStrand(std::move(command.name));
  co_return std::string();
}

asio::awaitable<Reply> BridgeServer::handle(BridgeCommand::GetInterfaces, ClientId) {
  const auto listed = co_await asio::co_spawn(
      ports_.blockingExecutor, listWithNames(ports_.listInterfaces), asio::use_awaitable);
  std::string active = activeInterface_;
  if (active.empty() && !listed.empty()) active = listed.front().name;
  co_return BridgeEventEncoder::interfaces(listed, active);
}

}  // namespace tarnlink
