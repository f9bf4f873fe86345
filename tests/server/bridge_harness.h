// A bridge server among fakes, all on one io_context that the test drives: nothing sleeps and every
// run takes the same steps.
#pragma once

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "server/bridge_server.h"
#include "server/pairing_code.h"

namespace tarnlink::test {

namespace asio = boost::asio;
using Json = nlohmann::json;

/// Of the bridges whose attempts wait; the others have none.
inline constexpr const char* kOwnerToken = "0123456789abcdef0123456789abcdef";

/// A client as the server sees it. Safe from any thread.
class FakeConnection final : public WebSocketConnection {
 public:
  std::string peer() const override { return peerName; }
  void start(StateHandler onState, SendErrorHandler) override {
    const std::lock_guard hold(lock_);
    onState_ = std::move(onState);
    onState_(ended_.value_or(TransportReady{}));
  }
  asio::awaitable<boost::system::result<WebSocketMessage>> receive() override {
    if (next_ == batch_.size()) {
      next_ = 0;
      const bool isMore = co_await stream_.next(batch_);
      if (!isMore) co_return end_;
    }
    if (isClosed_) co_return end_;
    if (failure) std::rethrow_exception(failure);
    co_return std::move(batch_.records()[next_++]);
  }
  void setStanding(Standing given) override { standing = given; }
  void send(SharedTextFrame frame) override {
    const std::lock_guard hold(lock_);
    sent.push_back(std::move(frame));
  }
  void sendBurst(std::span<SharedTextFrame> frames) override {
    for (SharedTextFrame& frame : frames) send(std::move(frame));
  }
  void cancel() override {
    isCancelled = true;
    close(TransportCancelled{});
  }

  void say(std::string text, bool isText = true) {
    goosestack::RecycledBatch<WebSocketMessage> message;
    message.append() = {isText, std::move(text)};
    incoming_->yield(message);
  }
  /// The connection ends, as the peer or the network wills.
  void close(const TransportState& how) {
    if (isClosed_.exchange(true)) return;
    incoming_->abandon();
    const std::lock_guard hold(lock_);
    ended_ = how;
    if (onState_) onState_(how);
  }
  /// The peer goes: the receive loop meets the error first.
  void reset(boost::system::error_code how = asio::error::connection_reset) {
    end_ = how;
    isClosed_ = true;
    incoming_->abandon();
  }
  /// The peer goes while nobody receives.
  void lose() {
    const std::lock_guard hold(lock_);
    onState_(TransportLost{asio::error::make_error_code(asio::error::connection_reset)});
  }
  bool isClosed() const { return isClosed_; }
  std::vector<SharedTextFrame> take() {
    const std::lock_guard hold(lock_);
    return std::exchange(sent, {});
  }

  std::string peerName = "192.0.2.1";
  std::atomic<Standing> standing = Standing::stranger;
  std::exception_ptr failure;  ///< What receive() throws in place of the next message.
  std::vector<SharedTextFrame> sent;
  std::atomic<bool> isCancelled = false;

 private:
  using Incoming = goosestack::StreamState<WebSocketMessage>;
  std::shared_ptr<Incoming> incoming_ = std::make_shared<Incoming>();
  goosestack::MessageStream<WebSocketMessage> stream_{incoming_};
  goosestack::RecycledBatch<WebSocketMessage> batch_;
  std::size_t next_ = 0;
  std::atomic<bool> isClosed_ = false;
  boost::system::error_code end_ = asio::error::connection_reset;
  std::mutex lock_;
  std::optional<TransportState> ended_;
  StateHandler onState_;
};

class FakeListener final : public WebSocketListener {
 public:
  explicit FakeListener(std::optional<TransportState> first) : first_(std::move(first)) {}
  void start(StateHandler onState, ConnectionHandler onConnection) override {
    report = std::move(onState);
    accept = std::move(onConnection);
    isStarted = true;
    if (first_) report(*first_);
  }
  void cancel() override {
    isCancelled = true;
    report(TransportCancelled{});
  }

  StateHandler report;
  ConnectionHandler accept;
  std::atomic<bool> isStarted = false;
  std::atomic<bool> isCancelled = false;

 private:
  std::optional<TransportState> first_;
};

class FakeTransport final : public WebSocketTransport {
 public:
  bool acceptsPort(std::uint16_t port) const override { return port != 0; }
  boost::system::result<std::shared_ptr<WebSocketListener>> makeListener(std::uint16_t) override {
    ++made;
    const std::lock_guard hold(lock_);
    listener_ = std::make_shared<FakeListener>(firstState);
    return std::shared_ptr<WebSocketListener>(listener_);
  }
  /// The latest. Any thread.
  std::shared_ptr<FakeListener> listener() {
    const std::lock_guard hold(lock_);
    return listener_;
  }

  std::optional<TransportState> firstState = TransportReady{};
  int made = 0;

 private:
  std::mutex lock_;
  std::shared_ptr<FakeListener> listener_;
};

class MemoryPreferences final : public PreferenceStore {
 public:
  std::optional<std::string> read(std::string_view key) override {
    const std::lock_guard hold(lock_);
    const auto found = texts.find(std::string(key));
    return found == texts.end() ? std::nullopt : std::optional(found->second);
  }
  void write(std::string_view key, std::string_view text) override {
    const std::lock_guard hold(lock_);
    texts[std::string(key)] = text;
  }
  std::map<std::string, std::string> texts;

 private:
  std::mutex lock_;
};

/// What a fake waits for, before or after its work.
using Pause = std::function<asio::awaitable<void>()>;
inline asio::awaitable<void> noPause() {
  co_return;
}

/// All captures of one kind: what was started, what runs, and a tap for records. yield() and die()
/// are for any thread.
template <class Record>
struct FakeCaptures {
  explicit FakeCaptures(asio::io_context& io) : gate(io.get_executor()) { gate.set(); }

  void yield(std::vector<Record> records) {
    goosestack::RecycledBatch<Record> batch;
    for (Record& record : records) batch.append() = std::move(record);
    if (const auto state = latest().current.lock()) state->yield(batch);
  }
  /// Makes the latest capture die, if there was one.
  void die(std::string reason) {
    if (const auto kill = latest().events.onDeath) kill(std::move(reason));
  }
  void drop(const goosestack::CaptureDrops& drops) { latest().events.onDrops(drops); }

  struct Latest {
    std::weak_ptr<goosestack::StreamState<Record>> current;
    typename goosestack::RecordSource<Record>::Events events;
  };
  /// Sets it if one is given.
  Latest latest(std::optional<Latest> next = {}) {
    const std::lock_guard hold(lock_);
    if (next) latest_ = *std::move(next);
    return latest_;
  }

  goosestack::AsyncEvent gate;  ///< Reset: starts wait here.
  /// What else starting and stopping wait for, before and after their work.
  Pause pause = noPause;
  std::optional<goosestack::GooseError> failure;
  std::atomic<bool> isDown = false;  ///< Starts fail, as with `failure`; for any thread.
  std::vector<std::string> interfaces;
  std::atomic<int> running = 0;
  std::atomic<int> mostRunning = 0;
  std::atomic<int> dropped = 0;  ///< Sources that were let go without being stopped.

 private:
  std::mutex lock_;
  Latest latest_;
};

template <class Record>
class FakeSource final : public goosestack::RecordSource<Record> {
 public:
  explicit FakeSource(FakeCaptures<Record>& captures) : captures_(captures) {}
  ~FakeSource() override {
    if (state_) ++captures_.dropped;
  }

  using typename goosestack::RecordSource<Record>::Events;

  asio::awaitable<goosestack::GooseResult<goosestack::MessageStream<Record>>> start(
      std::string interface, Events events) override {
    captures_.interfaces.push_back(std::move(interface));
    co_await captures_.gate.wait();
    co_await captures_.pause();
    if (captures_.failure) co_return *captures_.failure;
    if (captures_.isDown) co_return goosestack::GooseError::pcapOpenFailed("no such device");
    captures_.mostRunning = std::max<int>(captures_.mostRunning, ++captures_.running);
    state_ = std::make_shared<goosestack::StreamState<Record>>();
    captures_.latest({{state_, std::move(events)}});
    co_await captures_.pause();
    co_return goosestack::MessageStream<Record>(state_);
  }
  asio::awaitable<void> stop() override {
    co_await captures_.pause();
    if (!state_) co_return;
    --captures_.running;
    std::exchange(state_, nullptr)->finish();
    co_await captures_.pause();
  }

 private:
  FakeCaptures<Record>& captures_;
  std::shared_ptr<goosestack::StreamState<Record>> state_;
};

/// What both publishers have. With `running`, counts itself out when it is stopped.
struct FakePublisher {
  asio::awaitable<goosestack::GooseResult<void>> answer() {
    co_await pause();
    if (failure) co_return *failure;
    co_return goosestack::GooseResult<void>();
  }
  asio::awaitable<void> end() {
    co_await pause();
    isStopped = true;
    if (running != nullptr) --*running;
  }
  Pause pause = noPause;
  std::optional<goosestack::GooseError> failure;
  bool isStopped = false;
  std::atomic<int>* running = nullptr;
};

template <class Record>
std::shared_ptr<goosestack::RecordSource<Record>> sourceOf(FakeCaptures<Record>& captures) {
  return std::make_shared<FakeSource<Record>>(captures);
}

class FakeGoosePublisher final : public goosestack::GoosePublishing, public FakePublisher {
 public:
  asio::awaitable<goosestack::GooseResult<void>> publishStateChange(
      goosestack::GoosePublishConfig config) override {
    published.push_back(std::move(config));
    return answer();
  }
  asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) override {
    unpublished.push_back(goCBRef.value_or("(none)"));
    return pause();
  }
  asio::awaitable<void> stop() override { return end(); }
  std::vector<goosestack::GoosePublishConfig> published;
  std::vector<std::string> unpublished;
};

class FakeSvPublisher final : public goosestack::SvPublishing, public FakePublisher {
 public:
  asio::awaitable<goosestack::GooseResult<void>> publishApdu(
      goosestack::Bytes pdu, goosestack::SvPublishConfig config) override {
    published.emplace_back(std::move(pdu), std::move(config));
    return answer();
  }
  asio::awaitable<void> stop() override { return end(); }
  std::vector<std::pair<goosestack::Bytes, goosestack::SvPublishConfig>> published;
};

class FakeVlanSetup final : public VlanSetup {
 public:
  std::optional<std::string> readyVlanInterface(const std::string&, std::uint16_t) override {
    return ready;
  }
  VlanResult<std::string> ensureVlanInterface(const std::string& parent,
                                              std::uint16_t vid) override {
    parents.push_back(parent);
    if (failure) return *failure;
    return "vlan" + std::to_string(vid);
  }
  void cancel() override { isCancelled = true; }
  std::optional<std::string> ready;
  std::optional<VlanError> failure;
  std::vector<std::string> parents;
  bool isCancelled = false;
};

class BridgeHarness {
 public:
  explicit BridgeHarness(std::map<std::string, std::string> preferenceTexts = {},
                         std::optional<AuthDelay> delay = std::nullopt)
      : authDelay(delay) {
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
        .makeGooseReceiver = [this] { return needing(sourceOf(goose)); },
        .makeSvReceiver = [this] { return needing(sourceOf(sv)); },
        .makeGoosePublisher = [this] { return needing(goosePublisher); },
        .makeSvPublisher = [this] { return needing(svPublisher); },
        .makeVlanSetup =
            [this] {
              ++vlansMade;
              needing(0);
              return std::shared_ptr<VlanSetup>(&vlan, [](VlanSetup*) {});
            },
        .hostExecutor = hostIo.get_executor(),
        .listInterfaces = [this](BridgePorts::Names) { return needing(interfaces); },
        .blockingExecutor = io.get_executor(),
        .makeAdvertiser = {},
        .recoveryPause = std::chrono::milliseconds(20),
        .authDelay = authDelay,
        .ownerToken = authDelay ? std::string(kOwnerToken) : std::string(),
    };
  }

  /// What only a process with a free descriptor gets.
  template <class T>
  T needing(T made) const {
    if (hasNoDescriptors) throw std::system_error(EMFILE, std::generic_category());
    return made;
  }

  /// Lets everything run that can.
  void settle() {
    do {
      io.restart();
      io.poll();
      hostIo.restart();
    } while (!isHostBusy && hostIo.poll() > 0);
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
    auto client = std::make_shared<FakeConnection>();
    transport.listener()->accept(client);
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
    for (const auto& frame : client->take()) {
      events.push_back(Json::parse(frame->text()));
    }
    return events;
  }
  /// Lines that have this in them.
  long count(std::string_view part) const {
    return std::count_if(logLines.begin(), logLines.end(),
                         [part](const auto& line) { return line.find(part) != line.npos; });
  }
  void runFor(std::chrono::milliseconds time) {
    io.restart();
    io.run_for(time);
  }

  const std::optional<AuthDelay> authDelay;
  asio::io_context io;
  asio::io_context hostIo;
  bool isHostBusy = false;  ///< Somebody does not answer a prompt.
  FakeTransport transport;
  MemoryPreferences preferences;
  std::vector<std::string> logLines;
  FakeCaptures<goosestack::GooseMessage> goose{io};
  FakeCaptures<goosestack::SvCapturedFrame> sv{io};
  std::shared_ptr<FakeGoosePublisher> goosePublisher = std::make_shared<FakeGoosePublisher>();
  std::shared_ptr<FakeSvPublisher> svPublisher = std::make_shared<FakeSvPublisher>();
  FakeVlanSetup vlan;
  int vlansMade = 0;
  bool hasNoDescriptors = false;
  std::vector<goosestack::NetworkInterfaceInfo> interfaces;
  std::shared_ptr<BridgeServer> server;
};

}  // namespace tarnlink::test
