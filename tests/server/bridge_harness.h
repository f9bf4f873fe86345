// A bridge server among fakes, all on one io_context that the test drives: nothing sleeps and every
// run takes the same turns.
#pragma once

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <deque>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/bridge_server.h"
#include "server/pairing_code.h"

namespace tarnlink::test {

namespace asio = boost::asio;
using Json = nlohmann::json;

/// A client as the server sees it.
class FakeConnection final : public WebSocketConnection {
 public:
  explicit FakeConnection(asio::io_context& io) : arrived_(io.get_executor()) {}

  void start(StateHandler onState, SendErrorHandler onSendError) override {
    onState_ = std::move(onState);
    onSendError_ = std::move(onSendError);
    onState_(TransportReady{});
  }
  asio::awaitable<boost::system::result<WebSocketMessage>> receive() override {
    while (incoming_.empty() && !isClosed_) {
      co_await arrived_.wait();
      arrived_.reset();
    }
    if (isClosed_) co_return asio::error::make_error_code(asio::error::connection_reset);
    WebSocketMessage message = std::move(incoming_.front());
    incoming_.pop_front();
    co_return message;
  }
  void send(SharedTextFrame frame) override { sent.push_back(std::move(frame)); }
  void cancel() override {
    isCancelled = true;
    close(TransportCancelled{});
  }

  void say(std::string text, bool isText = true) {
    incoming_.push_back({isText, std::move(text)});
    arrived_.set();
  }
  /// The connection ends, as the peer or the network wills.
  void close(const TransportState& how) {
    if (std::exchange(isClosed_, true)) return;
    arrived_.set();
    if (onState_) onState_(how);
  }
  /// The peer goes: the receive loop meets the error first.
  void reset() {
    isClosed_ = true;
    arrived_.set();
  }
  void failSend() { onSendError_(asio::error::make_error_code(asio::error::broken_pipe)); }

  std::vector<SharedTextFrame> sent;
  bool isCancelled = false;

 private:
  std::deque<WebSocketMessage> incoming_;
  AsyncEvent arrived_;
  bool isClosed_ = false;
  StateHandler onState_;
  SendErrorHandler onSendError_;
};

class FakeListener final : public WebSocketListener {
 public:
  explicit FakeListener(std::optional<TransportState> first) : first_(std::move(first)) {}
  void start(StateHandler onState, ConnectionHandler onConnection) override {
    onState_ = std::move(onState);
    accept = std::move(onConnection);
    if (first_) onState_(*first_);
  }
  void cancel() override { report(TransportCancelled{}); }
  void report(const TransportState& state) { onState_(state); }

  ConnectionHandler accept;

 private:
  std::optional<TransportState> first_;
  StateHandler onState_;
};

class FakeTransport final : public WebSocketTransport {
 public:
  bool acceptsPort(std::uint16_t port) const override { return port != 0; }
  boost::system::result<std::shared_ptr<WebSocketListener>> makeListener(std::uint16_t) override {
    ++made;
    listener = std::make_shared<FakeListener>(firstState);
    return std::shared_ptr<WebSocketListener>(listener);
  }

  std::optional<TransportState> firstState = TransportReady{};
  std::shared_ptr<FakeListener> listener;
  int made = 0;
};

class MemoryPreferences final : public PreferenceStore {
 public:
  std::optional<std::string> read(std::string_view key) override {
    const auto found = texts.find(std::string(key));
    return found == texts.end() ? std::nullopt : std::optional(found->second);
  }
  void write(std::string_view key, std::string_view text) override {
    texts[std::string(key)] = text;
  }
  std::map<std::string, std::string> texts;
};

/// All captures of one kind: what was started, what runs, and a tap for records.
template <class Record>
struct FakeCaptures {
  explicit FakeCaptures(asio::io_context& io) : gate(io.get_executor()) { gate.set(); }

  void yield(std::vector<Record> records) {
    RecycledBatch<Record> batch;
    for (Record& record : records) batch.append() = std::move(record);
    if (const auto state = current.lock()) state->yield(batch);
  }

  AsyncEvent gate;  ///< Reset: starts wait here.
  std::optional<GooseError> failure;
  std::vector<std::string> interfaces;
  int running = 0;
  int mostRunning = 0;
  std::weak_ptr<StreamState<Record>> current;
  std::function<void(std::string)> kill;  ///< Makes the latest capture die.
};

template <class Record>
class FakeSource final : public RecordSource<Record> {
 public:
  explicit FakeSource(FakeCaptures<Record>& captures) : captures_(captures) {}

  using typename RecordSource<Record>::DeathHandler;

  asio::awaitable<GooseResult<MessageStream<Record>>> start(std::string interface,
                                                            DeathHandler onDeath) override {
    captures_.interfaces.push_back(std::move(interface));
    co_await captures_.gate.wait();
    if (captures_.failure) co_return *captures_.failure;
    captures_.mostRunning = std::max(captures_.mostRunning, ++captures_.running);
    state_ = std::make_shared<StreamState<Record>>();
    captures_.current = state_;
    captures_.kill = std::move(onDeath);
    co_return MessageStream<Record>(state_);
  }
  asio::awaitable<void> stop() override {
    if (!state_) co_return;
    --captures_.running;
    std::exchange(state_, nullptr)->finish();
  }

 private:
  FakeCaptures<Record>& captures_;
  std::shared_ptr<StreamState<Record>> state_;
};

class FakeGoosePublisher final : public GoosePublishing {
 public:
  asio::awaitable<GooseResult<void>> publishStateChange(GoosePublishConfig config) override {
    if (failure) co_return *failure;
    published.push_back(std::move(config));
    co_return GooseResult<void>();
  }
  asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) override {
    unpublished.push_back(goCBRef.value_or("(none)"));
    co_return;
  }
  asio::awaitable<void> stop() override {
    isStopped = true;
    co_return;
  }
  std::optional<GooseError> failure;
  std::vector<GoosePublishConfig> published;
  std::vector<std::string> unpublished;
  bool isStopped = false;
};

class FakeSvPublisher final : public SvPublishing {
 public:
  asio::awaitable<GooseResult<void>> publishApdu(Bytes pdu, SvPublishConfig config) override {
    if (failure) co_return *failure;
    published.emplace_back(std::move(pdu), std::move(config));
    co_return GooseResult<void>();
  }
  asio::awaitable<void> stop() override { co_return; }
  std::optional<GooseError> failure;
  std::vector<std::pair<Bytes, SvPublishConfig>> published;
};

class FakeVlanSetup final : public VlanSetup {
 public:
  VlanResult<std::string> ensureVlanInterface(const std::string& parent,
                                              std::uint16_t vid) override {
    parents.push_back(parent);
    if (failure) return *failure;
    return "vlan" + std::to_string(vid);
  }
  void cancel() override { isCancelled = true; }
  std::optional<VlanError> failure;
  std::vector<std::string> parents;
  bool isCancelled = false;
};

class BridgeHarness {
 public:
  explicit BridgeHarness(std::map<std::string, std::string> preferenceTexts = {}) {
    preferences.texts = std::move(preferenceTexts);
    preferences.texts.emplace(kPairingCodeKey, "042137");
    server = std::make_shared<BridgeServer>(io.get_executor(), ports());
  }
  ~BridgeHarness() { await(server->stop()); }

  BridgePorts ports() {
    return BridgePorts{
        .transport = transport,
        .preferences = preferences,
        .log = [this](std::string_view line) { logLines.emplace_back(line); },
        .makeGooseReceiver = [this] { return std::make_shared<FakeSource<GooseMessage>>(goose); },
        .makeSvReceiver = [this] { return std::make_shared<FakeSource<SvCapturedFrame>>(sv); },
        .makeGoosePublisher = [this] { return goosePublisher; },
        .makeSvPublisher = [this] { return svPublisher; },
        .makeVlanSetup =
            [this] {
              ++vlansMade;
              return std::shared_ptr<VlanSetup>(&vlan, [](VlanSetup*) {});
            },
        .hostExecutor = io.get_executor(),
        .listInterfaces = [this](BridgePorts::Names) { return interfaces; },
        .blockingExecutor = io.get_executor(),
        .makeAdvertiser = {},
        .recoveryPause = std::chrono::milliseconds(20),
    };
  }

  /// Lets everything run that can.
  void settle() {
    io.restart();
    io.poll();
  }
  template <class T>
  std::optional<T> await(asio::awaitable<T> task) {
    std::optional<T> result;
    asio::co_spawn(io, std::move(task),
                   [&result](std::exception_ptr, T value) { result.emplace(std::move(value)); });
    settle();
    return result;
  }
  /// False when the task still waits for something.
  bool await(asio::awaitable<void> task) {
    auto done = std::make_shared<bool>(false);
    asio::co_spawn(io, std::move(task), [done](std::exception_ptr) { *done = true; });
    settle();
    return *done;
  }
  bool start() {
    const auto started = await(server->start(kDefaultBridgePort));
    return started && *started;
  }

  std::shared_ptr<FakeConnection> connect() {
    auto client = std::make_shared<FakeConnection>(io);
    transport.listener->accept(client);
    settle();
    return client;
  }
  std::shared_ptr<FakeConnection> authenticated() {
    auto client = connect();
    say(client, R"({"cmd":"auth","token":"042137"})");
    client->sent.clear();
    return client;
  }
  void say(const std::shared_ptr<FakeConnection>& client, std::string text) {
    client->say(std::move(text));
    settle();
  }
  /// Says it and takes what came back: all events sent to this client since the last call.
  std::vector<Json> ask(const std::shared_ptr<FakeConnection>& client, std::string text) {
    say(client, std::move(text));
    return take(client);
  }
  static std::vector<Json> take(const std::shared_ptr<FakeConnection>& client) {
    std::vector<Json> events;
    for (const auto& frame : std::exchange(client->sent, {})) {
      events.push_back(Json::parse(frame->text()));
    }
    return events;
  }
  bool logged(std::string_view line) const {
    return std::find(logLines.begin(), logLines.end(), line) != logLines.end();
  }

  asio::io_context io;
  FakeTransport transport;
  MemoryPreferences preferences;
  std::vector<std::string> logLines;
  FakeCaptures<GooseMessage> goose{io};
  FakeCaptures<SvCapturedFrame> sv{io};
  std::shared_ptr<FakeGoosePublisher> goosePublisher = std::make_shared<FakeGoosePublisher>();
  std::shared_ptr<FakeSvPublisher> svPublisher = std::make_shared<FakeSvPublisher>();
  FakeVlanSetup vlan;
  int vlansMade = 0;
  std::vector<NetworkInterfaceInfo> interfaces;
  std::shared_ptr<BridgeServer> server;
};

}  // namespace tarnlink::test
