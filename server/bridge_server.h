// The bridge: a WebSocket command server between its clients and the GOOSE and SV stack.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "goosestack/goose_message.h"
#include "goosestack/sv_records.h"
#include "protocol/bridge_command.h"
#include "server/auth_queue.h"
#include "server/bridge_error.h"
#include "server/bridge_ports.h"
#include "server/client_id.h"
#include "server/feed.h"
#include "server/goose_filter.h"
#include "server/publications.h"
#include "server/reply.h"
#include "server/service_advertiser.h"
#include "server/sv_filter.h"
#include "server/task_group.h"
#include "websocket/websocket.h"

namespace tarnlink {

inline constexpr std::uint16_t kDefaultBridgePort = 8765;
inline constexpr std::string_view kActiveInterfaceKey = "activeInterface";

/// An actor: its coroutines all run on its own strand, and other operations may enter while one of
/// them awaits. Nobody outside touches its fields and nobody inside takes a lock. The public
/// operations may be awaited from any executor. Make it with std::make_shared; stop it before
/// dropping it.
class BridgeServer final : public std::enable_shared_from_this<BridgeServer>, private FeedHost {
 public:
  /// Restores the active interface from the preferences, unless one is given for this run.
  BridgeServer(const boost::asio::any_io_executor& executor, BridgePorts ports,
               std::string interfaceForThisRun = {});

  /// Returns when the listener is ready. With a listener already present nothing changes.
  boost::asio::awaitable<BridgeResult<void>> start(std::uint16_t port);

  /// Ends captures, connections, listener and announcement, in that order, and returns when all
  /// of them have ended. Counters keep their values; a new start() is possible.
  boost::asio::awaitable<void> stop();

  /// Makes an interface the one for capture and publishing, stores the choice, moves a running
  /// GOOSE capture to it and broadcasts the status. The name is not validated.
  boost::asio::awaitable<void> setActiveInterface(std::string name);

  /// The active interface of the process, empty when none is chosen. Any thread.
  static std::string sharedActiveInterface();

 private:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  using Connection = std::shared_ptr<WebSocketConnection>;
  class StartWait;

  // Server core (bridge_server.cpp).
  static boost::asio::awaitable<BridgeResult<void>> startOnStrand(
      std::shared_ptr<BridgeServer> self, std::uint16_t port);
  static boost::asio::awaitable<void> stopOnStrand(std::shared_ptr<BridgeServer> self);
  void handleListenerState(std::uint16_t port, const TransportState& state);
  boost::asio::awaitable<void> keepMemorySmall();
  void acceptConnection(Connection connection);
  void handleConnectionState(const ClientId& id, const TransportState& state);
  static boost::asio::awaitable<void> serve(std::weak_ptr<BridgeServer> weak, ClientId id,
                                            Connection connection);
  static boost::asio::awaitable<void> receiveLoop(std::weak_ptr<BridgeServer> weak, ClientId id,
                                                  Connection connection);
  void removeConnection(const ClientId& id);
  void sendText(std::string_view text, const ClientId& id);
  bool broadcast(std::string_view text, const std::optional<ClientId>& except = std::nullopt);
  std::string statusEvent() const;

  // Commands (bridge_server_commands.cpp): one overload of handle() for each, and one place that
  // answers.
  struct Backlog;
  boost::asio::awaitable<void> handleText(std::string text, ClientId id);
  boost::asio::awaitable<void> serveBacklog(ClientId id, std::shared_ptr<Backlog> backlog);
  boost::asio::awaitable<void> serveRequest(BridgeRequest request, ClientId id);
  boost::asio::awaitable<Reply> execute(BridgeCommand::Result command, ClientId id);
  void answer(const BridgeRequest& request, Reply reply, const ClientId& id);
  bool isOwnersToken(std::string_view token) const;
  bool mustQueue(const BridgeCommand::Auth& command, const ClientId& id) const;
  boost::asio::awaitable<bool> waitInAuthQueue(ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::Auth command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::Ping command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::SubscribeGoose command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::UnsubscribeGoose, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::PublishGoose command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::UnpublishGoose command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::SubscribeSv command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::UnsubscribeSv, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::PublishSvApdu command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::SetInterface command, ClientId id);
  boost::asio::awaitable<Reply> handle(BridgeCommand::GetInterfaces, ClientId id);

  boost::asio::awaitable<void> setActiveInterfaceOnStrand(std::string name);
  void rememberActiveInterface(std::string name);

  // FeedHost.
  const std::string& chooseInterface() override;
  bool isStopping() const override { return isStopping_; }
  void broadcastStatus() override { broadcast(statusEvent()); }
  void spawn(boost::asio::awaitable<void> task) override;

  void log(std::string_view line) const { ports_.log(line); }

  Strand strand_;
  BridgePorts ports_;
  TaskGroup tasks_;
  bool isStopping_ = false;
  goosestack::AsyncEvent stopped_;

  std::shared_ptr<WebSocketListener> listener_;
  std::uint16_t activePort_ = kDefaultBridgePort;
  std::map<ClientId, Connection> connections_;
  bool keepsMemorySmall_ = false;
  boost::asio::steady_timer memoryPause_;
  std::set<ClientId> authenticatedConnections_;
  std::set<ClientId> owners_;             // Those of them that have sent the owner's token.
  std::shared_ptr<AuthQueue> authQueue_;  // Null: attempts need not wait.
  std::map<ClientId, std::shared_ptr<Backlog>> backlogs_;
  std::unique_ptr<ServiceAdvertiser> advertiser_;

  std::string activeInterface_;
  goosestack::AsyncMutex storeLock_;  // For storing it.
  Feed<goosestack::GooseMessage, GooseFilter> gooseFeed_;
  Feed<goosestack::SvCapturedFrame, SvFilter> svFeed_;
  Publications publications_;
};

}  // namespace tarnlink
