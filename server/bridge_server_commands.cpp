// The server's commands: decoding, the authentication gate and the dispatch.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <string>
#include <utility>
#include <variant>

#include "server/bridge_event_encoder.h"
#include "server/bridge_server.h"
#include "server/error_code.h"
#include "server/pairing_code.h"
#include "stack/interface_name.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

std::string orStar(const std::optional<std::string>& text) {
  return text.value_or("*");
}
std::string orStar(const std::optional<std::int64_t>& number) {
  return number ? std::to_string(*number) : "*";
}

asio::awaitable<std::string> readPairingCode(PreferenceStore& preferences) {
  co_return pairingCode(preferences);
}

asio::awaitable<std::vector<NetworkInterfaceInfo>> listWithNames(
    std::function<std::vector<NetworkInterfaceInfo>(BridgePorts::Names)> list) {
  co_return list(BridgePorts::Names::display);
}

}  // namespace

asio::awaitable<void> BridgeServer::handleText(std::string text, ClientId id) {
  if (isStopping_) co_return;
  auto command = BridgeCommand::fromText(text);
  if (!command) {
    sendError("Invalid JSON command", ErrorCode::undecodable, id);
  } else if (const auto* ping = std::get_if<BridgeCommand::Ping>(&command->payload)) {
    sendText(BridgeEventEncoder::pong(ping->timestamp), id);
  } else if (const auto* auth = std::get_if<BridgeCommand::Auth>(&command->payload)) {
    co_await handleAuth(auth->token, id);
  } else if (!authenticatedConnections_.contains(id)) {
    sendError("Not authenticated — send auth with pairing code", ErrorCode::notAuthenticated, id);
  } else {
    co_await std::visit([this, &id](auto& payload) { return handle(std::move(payload), id); },
                        command->payload);
  }
}

// False when the client has gone, or goes because too many attempts wait already: an answer would
// say that its code is wrong.
asio::awaitable<bool> BridgeServer::waitForAuthTurn(ClientId id) {
  const auto connection = connections_.at(id);
  connection->setStanding(Standing::waiting);
  const auto turn = co_await authQueue_->wait(id, connection->peer());
  connection->setStanding(Standing::stranger);
  if (turn == AuthQueue::Turn::tooMany && connections_.contains(id)) {
    log("[BridgeServer] client " + toText(id) + " dropped: too many attempts to authenticate wait");
    removeConnection(id);
    connection->cancel();
  }
  co_return turn == AuthQueue::Turn::yours && !isStopping_;
}

asio::awaitable<void> BridgeServer::handleAuth(std::string token, ClientId id) {
  const bool isOwner = !ports_.ownerToken.empty() && equalsInConstantTime(ports_.ownerToken, token);
  // Who has shown the code already learns nothing from another comparison.
  const bool mustWait = authQueue_ && !isOwner && !authenticatedConnections_.contains(id);
  if (mustWait) {
    const bool mayTry = co_await waitForAuthTurn(id);
    if (!mayTry) co_return;
  }
  const auto code = co_await asio::co_spawn(
      ports_.blockingExecutor, readPairingCode(ports_.preferences), asio::use_awaitable);
  const bool ok = isOwner || equalsInConstantTime(code, token);
  if (mustWait) authQueue_->tell(id, ok);
  if (!connections_.contains(id)) {
    if (mustWait) authQueue_->withdraw(id);
    co_return;
  }
  if (ok) {
    authenticatedConnections_.insert(id);
    connections_.at(id)->setStanding(Standing::admitted);
  }
  sendText(BridgeEventEncoder::authResult(ok), id);
  log("[BridgeServer] client " + toText(id) + (ok ? " authenticated" : " auth failed"));
  if (!isOwner) co_return;
  owners_.insert(id);
  sendStatus(id);
}

// Both are served before the gate.
asio::awaitable<void> BridgeServer::handle(BridgeCommand::Auth, ClientId) {
  co_return;
}
asio::awaitable<void> BridgeServer::handle(BridgeCommand::Ping, ClientId) {
  co_return;
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::SubscribeGoose command, ClientId id) {
  log("[BridgeServer] ← subscribe_goose appId=" + orStar(command.appIdFilter) +
      " goCBRef=" + orStar(command.goCBRefFilter));
  co_await handleSubscribeGoose(std::move(command.appIdFilter), std::move(command.goCBRefFilter),
                                id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::UnsubscribeGoose, ClientId id) {
  log("[BridgeServer] ← unsubscribe_goose");
  co_await handleUnsubscribeGoose(id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::PublishGoose command, ClientId id) {
  log("[BridgeServer] ← publish_goose appId=" + std::to_string(command.config.appId));
  co_await handlePublishGoose(std::move(command.config), id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::UnpublishGoose command, ClientId id) {
  log("[BridgeServer] ← unpublish_goose goCBRef=" + orStar(command.goCBRef));
  co_await handleUnpublishGoose(std::move(command.goCBRef), id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::SubscribeSv command, ClientId id) {
  log("[BridgeServer] ← subscribe_sv appId=" + orStar(command.appIdFilter));
  co_await handleSubscribeSv(command.appIdFilter, id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::UnsubscribeSv, ClientId id) {
  log("[BridgeServer] ← unsubscribe_sv");
  svSubscribers_.erase(id);
  if (svSubscribers_.empty()) co_await stopSvCaptureIfNeeded();
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::PublishSvApdu command, ClientId id) {
  co_await handlePublishSvApdu(std::move(command.pdu), std::move(command.config), id);
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::SetInterface command, ClientId id) {
  log("[BridgeServer] ← set_interface name=" + command.name);
  if (!isValidInterfaceName(command.name)) {
    sendError("Invalid interface name", ErrorCode::invalidInterfaceName, id);
    co_return;
  }
  co_await setActiveInterfaceOnStrand(std::move(command.name));
}

asio::awaitable<void> BridgeServer::handle(BridgeCommand::GetInterfaces, ClientId id) {
  const auto listed = co_await asio::co_spawn(
      ports_.blockingExecutor, listWithNames(ports_.listInterfaces), asio::use_awaitable);
  std::string active = activeInterface_;
  if (active.empty() && !listed.empty()) active = listed.front().name;
  sendText(BridgeEventEncoder::interfaces(listed, active), id);
}

}  // namespace tarnlink
