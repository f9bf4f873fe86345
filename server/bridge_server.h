// The bridge: a WebSocket command server between its clients and the GOOSE and SV stack.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "goosestack/goose_message.h"
#include "goosestack/log_sink.h"
#include "goosestack/network_interface_info.h"
#include "goosestack/publishing.h"
#include "goosestack/record_source.h"
#include "goosestack/sv_records.h"
#include "platform/preference_store.h"
#include "protocol/bridge_command.h"
#include "protocol/json_writer.h"
#include "server/auth_queue.h"
#include "server/bridge_error.h"
#include "server/capture_control.h"
#include "server/client_id.h"
#include "server/event_fan_out.h"
#include "server/goose_filter.h"
#include "server/reply.h"
#include "server/service_advertiser.h"
#include "server/task_group.h"
#include "server/vlan_setup.h"
#include "websocket/websocket.h"

namespace tarnlink {

/// What the server needs of its surroundings. References outlive the server.
struct BridgePorts {
  WebSocketTransport& transport;
  PreferenceStore& preferences;
  goosestack::LogSink log;
  std::function<std::shared_ptr<goosestack::RecordSource<goosestack::GooseMessage>>()>
      makeGooseReceiver;
  std::function<std::shared_ptr<goosestack::RecordSource<goosestack::SvCapturedFrame>>()>
      makeSvReceiver;
  std::function<std::shared_ptr<goosestack::GoosePublishing>()> makeGoosePublisher;
  std::function<std::shared_ptr<goosestack::SvPublishing>()> makeSvPublisher;
  std::function<std::shared_ptr<VlanSetup>()> makeVlanSetup;
  /// One thread for work that waits for people or tools: VLAN set-up runs here.
  boost::asio::any_io_executor hostExecutor;
  /// Lists the machine's Ethernet interfaces. With display names it may block for a while.
  enum class Names { fallback, display };
  std::function<std::vector<goosestack::NetworkInterfaceInfo>(Names)> listInterfaces;
  /// Where listInterfaces runs when it may block, and where preferences are read and written.
  boost::asio::any_io_executor blockingExecutor;
  AdvertiserFactory makeAdvertiser;  ///< Empty: the bridge is not announced.
  /// Between two tries to open an interface whose capture has died.
  std::chrono::milliseconds recoveryPause{5'000};
  /// Nothing: wrong pairing codes meet neither delay nor lockout.
  std::optional<AuthDelay> authDelay = std::nullopt;
  /// Taken by `auth` like the pairing code, but at once: the program that started this one need not
  /// queue behind guessers. Too long to be guessed. Its client is told each interface that the
  /// bridge chooses by itself. Empty: there is none.
  std::string ownerToken = {};
  /// Gives back what piles up while clients are slow: called every memoryPause while any is
  /// connected, and once after the last has left. Empty: never.
  std::function<void()> returnFreeMemory = {};
  std::chrono::milliseconds memoryPause{2'000};
};

inline constexpr std::uint16_t kDefaultBridgePort = 8765;
inline constexpr std::string_view kActiveInterfaceKey = "activeInterface";

/// An actor: its coroutines all run on its own strand, and other operations may enter while one of
/// them awaits. Nobody outside touches its fields and nobody inside takes a lock. The public
/// operations may be awaited from any executor. Make it with std::make_shared; stop it before
/// dropping it.
class BridgeServer : public std::enable_shared_from_this<BridgeServer> {
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
  template <class Filter>
  struct Subscriber {
    Filter filter;
    Connection connection;
  };
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
  static SharedTextFrame toFrame(JsonWriter writer);
  std::string statusEvent() const;
  void broadcastStatus() { broadcast(statusEvent()); }

  // Commands (bridge_server_commands.cpp): one overload of handle() for each, and one place that
  // answers.
  struct Backlog;
  boost::asio::awaitable<void> handleText(std::string text, ClientId id);
  boost::asio::awaitable<void> serveBacklog(ClientId id, std::shared_ptr<Backlog> backlog);
  boost::asio::awaitable<void> serveRequest(BridgeRequest request, ClientId id);
  boost::asio::awaitable<Reply> execute(BridgeCommand::Result command, ClientId id);
  void answer(const BridgeRequest& request, Reply reply, const ClientId& id);
  bool isOwnersToken(std::string_view token) const;
  bool needsTurn(const BridgeCommand::Auth& command, const ClientId& id) const;
  boost::asio::awaitable<bool> waitForAuthTurn(ClientId id);
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

  // GOOSE subscriptions (bridge_server_goose.cpp).
  boost::asio::awaitable<Reply> handleSubscribeGoose(std::optional<std::string> appIdFilter,
                                                     std::optional<std::string> goCBRef,
                                                     ClientId client);
  boost::asio::awaitable<Reply> handleUnsubscribeGoose(ClientId id);
  boost::asio::awaitable<void> setActiveInterfaceOnStrand(std::string name);
  boost::asio::awaitable<goosestack::GooseResult<void>> startCaptureInternal();
  boost::asio::awaitable<void> stopCaptureIfNeeded();
  void dispatchGooseMessages(std::span<const goosestack::GooseMessage> messages);
  void chooseInterface();
  void rememberActiveInterface(std::string name);

  // GOOSE publishing (bridge_server_publishing.cpp).
  boost::asio::awaitable<Reply> handlePublishGoose(goosestack::GoosePublishConfig config);
  boost::asio::awaitable<Reply> handleUnpublishGoose(std::optional<std::string> goCBRef);
  boost::asio::awaitable<VlanResult<void>> moveToVlanInterface(
      goosestack::GoosePublishConfig& config);
  std::string outgoingInterface(const std::string& requested) const;

  // Sampled Values (bridge_server_sv.cpp).
  boost::asio::awaitable<Reply> handleSubscribeSv(std::optional<std::int64_t> appIdFilter,
                                                  ClientId client);
  boost::asio::awaitable<goosestack::GooseResult<void>> startSvCapture();
  boost::asio::awaitable<void> stopSvCaptureIfNeeded();
  void forwardSvFrames(std::span<const goosestack::SvCapturedFrame> frames);
  boost::asio::awaitable<Reply> handlePublishSvApdu(goosestack::Bytes pdu,
                                                    goosestack::SvPublishConfig config);

  // Captures that died or lost frames (bridge_server_recovery.cpp).
  template <class Record>
  struct CaptureRecovery {
    std::string label;
    CaptureControl<Record>& capture;
    bool (BridgeServer::*hasSubscribers)() const;
    boost::asio::awaitable<goosestack::GooseResult<void>> (BridgeServer::*start)();
  };
  template <class Record>
  boost::asio::awaitable<void> recoverCapture(CaptureRecovery<Record> recovery, std::string reason);
  boost::asio::awaitable<void> recoverGooseCapture(std::string reason);
  boost::asio::awaitable<void> recoverSvCapture(std::string reason);
  template <class Record>
  boost::asio::awaitable<void> retryCapture(CaptureRecovery<Record> recovery);
  boost::asio::awaitable<void> retryGooseCapture();
  CaptureRecovery<goosestack::GooseMessage> gooseRecovery();
  CaptureRecovery<goosestack::SvCapturedFrame> svRecovery();
  boost::asio::awaitable<void> pause(std::chrono::milliseconds duration);
  std::function<void(const goosestack::CaptureDrops&)> dropLog(const std::string& label,
                                                               const std::string& interface) const;
  bool hasGooseSubscribers() const { return !gooseSubscribers_.empty(); }
  bool hasSvSubscribers() const { return !svSubscribers_.empty(); }
  void spawn(boost::asio::awaitable<void> task);

  // What is thrown where descriptors, threads or memory run out becomes an error like any other.
  static boost::asio::awaitable<goosestack::GooseResult<void>> orFailure(
      boost::asio::awaitable<goosestack::GooseResult<void>> task);
  template <class Service>
  static goosestack::GooseResult<void> ensureMade(
      std::shared_ptr<Service>& service,
      const std::function<std::shared_ptr<Service>()>& make) try {
    if (!service) service = make();
    return goosestack::GooseResult<void>();
  } catch (const std::exception& failure) {
    return goosestack::GooseError::pcapOpenFailed(failure.what());
  }

  void log(std::string_view line) const { ports_.log(line); }

  Strand strand_;
  BridgePorts ports_;
  TaskGroup tasks_;
  bool isStopping_ = false;
  goosestack::AsyncEvent stopped_;
  EventFanOut fanOut_;
  std::set<boost::asio::steady_timer*> pauses_;  // Cancelled by stop().

  std::shared_ptr<WebSocketListener> listener_;
  std::uint16_t activePort_ = kDefaultBridgePort;
  std::map<ClientId, Connection> connections_;
  bool keepsMemorySmall_ = false;
  std::set<ClientId> authenticatedConnections_;
  std::set<ClientId> owners_;             // Those of them that have sent the owner's token.
  std::shared_ptr<AuthQueue> authQueue_;  // Null: attempts need not wait.
  std::map<ClientId, std::shared_ptr<Backlog>> backlogs_;
  std::unique_ptr<ServiceAdvertiser> advertiser_;

  std::string activeInterface_;
  goosestack::AsyncMutex storeTurn_;  // For storing it.
  std::int64_t messagesReceived_ = 0;
  std::int64_t messagesPublished_ = 0;
  CaptureControl<goosestack::GooseMessage> gooseCapture_;
  std::map<ClientId, Subscriber<GooseFilter>> gooseSubscribers_;
  std::shared_ptr<goosestack::GoosePublishing> goosePublisher_;
  std::shared_ptr<VlanSetup> vlanSetup_;  // From the first VLAN publication to stop().

  std::int64_t svFramesForwarded_ = 0;
  std::int64_t svFramesPublished_ = 0;
  CaptureControl<goosestack::SvCapturedFrame> svCapture_;
  std::string svInterface_;  // Where the capture belongs until its last subscriber leaves.
  std::map<ClientId, Subscriber<std::optional<std::int64_t>>> svSubscribers_;
  std::shared_ptr<goosestack::SvPublishing> svPublisher_;
};

}  // namespace tarnlink
