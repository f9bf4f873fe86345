// Clients, captures and the server's owner act in an order drawn by lot, and every wait of the
// fakes takes as long as the lot wants. Whatever the order, the promises of the protocol hold.
//
// A failure names its seed: TARNLINK_RACE_SEED=<seed> runs that one alone and tells what happened.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <random>
#include <thread>

#include "tests/server/bridge_harness.h"
#include "tests/server/shuffled_executor.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;

struct Command {
  std::string text;
  const char* answer;       // Event that comes back; "" for none, "error" for nothing else.
  std::vector<int> errors;  // Codes that may come in its place.
};

const std::string kPublish =
    R"({"cmd":"publish_goose","appId":1,"goCBRef":"g","dataSetRef":"d","confRev":1)";

const std::vector<Command>& commands() {
  static const std::vector<Command> all = {
      {R"({"cmd":"subscribe_goose"})", "bridge_status", {1}},
      {R"({"cmd":"unsubscribe_goose"})", "bridge_status", {}},
      {kPublish + R"(,"vlanId":5})", "bridge_status", {2, 3}},
      {R"({"cmd":"subscribe_sv"})", "", {4}},
      {R"({"cmd":"unsubscribe_sv"})", "", {}},
      {R"({"cmd":"set_interface","interface":"bus0"})", "bridge_status", {}},
      {R"({"cmd":"set_interface","interface":"bus1"})", "bridge_status", {}},
      {kPublish + "}", "bridge_status", {2}},
      {R"({"cmd":"set_interface","interface":"no-name"})", "error", {6}},
      {R"({"cmd":"unpublish_goose"})", "bridge_status", {}},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"AA=="})", "", {5}},
      {R"({"cmd":"get_interfaces"})", "interfaces", {}},
      {R"({"cmd":"auth","token":"000000"})", "auth_result", {}},
      {R"({"cmd":"auth","token":"042137"})", "auth_result", {}}};
  return all;
}

bool says(const Command& command, std::string_view part) {
  return command.text.find(part) != std::string::npos;
}

struct Client {
  explicit Client(int given) : number(given) {}

  int number;
  std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
  std::deque<Command> asked;  // A ping follows each; its answer ends that command's events.
  int answered = 0;
  std::map<std::string, int> events;  // Since the last answer to a ping.
  std::vector<int> errors;
  std::vector<int> marks;
  bool isAuthenticated = false;
  bool hasGoose = false;
  bool hasSv = false;
  std::int64_t lastSqNum = 0;
  Json lastStatus = {{"messagesReceived", 0}, {"messagesPublished", 0}};

  void ask(const Command& command) {
    asked.push_back(command);
    const auto ping = number * 1'000 + answered + static_cast<int>(asked.size());
    // Every second command is marked, and then has exactly one answer with the mark.
    const std::string mark = ping % 2 == 0 ? R"(,"requestId":)" + std::to_string(ping) + "}" : "}";
    connection->say(command.text.substr(0, command.text.size() - 1) + mark);
    connection->say(R"({"cmd":"ping","timestamp":)" + std::to_string(ping) + "}");
  }

  void take() {
    for (const auto& frame : connection->take()) {
      const Json event = Json::parse(frame->text());
      const std::string name = event["event"];
      if (event.contains("requestId")) marks.push_back(event["requestId"]);
      SCOPED_TRACE("client " + std::to_string(number) + " after its answer " +
                   std::to_string(answered) + ": " + event.dump());
      if (name == "pong") {
        endCommand(event);
      } else if (name == "error") {
        errors.push_back(event["code"]);
      } else if (name == "goose_message") {
        EXPECT_TRUE(hasGoose || isAsking("subscribe_goose")) << "not subscribed";
        EXPECT_GT(event["message"]["sqNum"], lastSqNum);
        lastSqNum = event["message"]["sqNum"];
      } else if (name == "sv_apdu") {
        EXPECT_TRUE(hasSv || isAsking("subscribe_sv")) << "not subscribed";
      } else if (name == "bridge_status") {
        for (const char* count : {"messagesReceived", "messagesPublished"}) {
          EXPECT_GE(event[count], lastStatus[count]);
        }
        lastStatus = event;
      }
      ++events[name];
    }
  }

 private:
  bool isAsking(std::string_view part) const {
    return !asked.empty() && isAuthenticated && says(asked.front(), part);
  }

  void endCommand(const Json& pong) {
    const int expected = number * 1'000 + ++answered;
    EXPECT_EQ(pong["originalTimestamp"], expected) << "whose answer is this?";
    if (asked.empty()) return;
    const Command command = std::exchange(asked.front(), {});
    asked.pop_front();
    SCOPED_TRACE(command.text);
    const bool isMarked = expected % 2 == 0;
    EXPECT_EQ(marks, isMarked ? std::vector{expected} : std::vector<int>());
    marks.clear();
    const bool isGated = !isAuthenticated && !says(command, R"("auth")");
    const std::vector<int> allowed = isGated ? std::vector{7} : command.errors;
    EXPECT_LE(errors.size(), 1U);
    for (const int code : errors) {
      EXPECT_NE(std::find(allowed.begin(), allowed.end(), code), allowed.end()) << code;
    }
    if (isGated || command.answer == std::string("error")) {
      EXPECT_EQ(errors.size(), 1U);
    } else if (command.answer != std::string()) {
      EXPECT_GE(errors.size() + static_cast<std::size_t>(events[command.answer]), 1U)
          << "no answer";
    }
    if (!isGated && errors.empty()) {
      if (says(command, "subscribe_goose")) hasGoose = !says(command, "unsub");
      if (says(command, "subscribe_sv")) hasSv = !says(command, "unsub");
      if (says(command, "042137")) isAuthenticated = true;
    } else if (!isGated) {
      if (says(command, "subscribe_goose")) hasGoose = false;
      if (says(command, "subscribe_sv")) hasSv = false;
    }
    events.clear();
    errors.clear();
  }
};

class CountedAdvertiser final : public ServiceAdvertiser {
 public:
  explicit CountedAdvertiser(std::atomic<int>& running) : running_(running) {}
  void start() override { ++running_; }
  void stop() override { --running_; }

 private:
  std::atomic<int>& running_;
};

/// Its tools are always done just before they are cancelled.
class SameVlan final : public VlanSetup {
 public:
  VlanResult<std::string> ensureVlanInterface(const std::string& parent, std::uint16_t) override {
    return parent;
  }
  void cancel() override {}
};

/// With threads the order is the machine's; without, the seed alone decides.
class Race {
 public:
  Race(std::uint64_t seed, int threads, bool isTold)
      : lot_(seed), isThreaded_(threads != 0), isTold_(isTold) {
    preferences_.texts.emplace(kPairingCodeKey, "042137");
    goose_.pause = sv_.pause = pause();
    server_ = std::make_shared<BridgeServer>(io_.get_executor(), ports());
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([this] { io_.run(); });
      threads_.emplace_back([this, i] {
        std::minstd_rand lot(static_cast<unsigned>(i) + 1);
        while (!isOver_) {
          if (!shuffle_.runOne(lot())) std::this_thread::sleep_for(20us);
        }
      });
    }
  }
  ~Race() {
    isOver_ = true;
    work_.reset();
    io_.stop();
    for (auto& thread : threads_) thread.join();
  }

  void run() {
    beginStart();
    for (int round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
      pace_ = 1 + draw(12);
      patience_ = 1 + draw(6);
      for (int step = 0; step < kSteps; ++step) {
        act();
        letOthersRun();
        for (auto& client : clients_) client.take();
      }
      if (round + 1 < kRounds && draw(3) != 0) {
        checkThatItSettles();
      } else {
        checkThatItStops();
      }
    }
  }

 private:
  static constexpr int kRounds = 5;
  static constexpr int kSteps = 25;

  std::function<asio::awaitable<void>()> pause() {
    return [this]() -> asio::awaitable<void> {
      const auto executor = shuffle_.executor();
      co_await asio::post(executor, asio::use_awaitable);
    };
  }

  BridgePorts ports() {
    return BridgePorts{
        .transport = transport_,
        .preferences = preferences_,
        .log = [this](std::string_view line) { tell("    " + std::string(line)); },
        .makeGooseReceiver = [this] { return sourceOf(goose_); },
        .makeSvReceiver = [this] { return sourceOf(sv_); },
        .makeGoosePublisher =
            [this] { return madePublisher(std::make_shared<FakeGoosePublisher>()); },
        .makeSvPublisher = [this] { return madePublisher(std::make_shared<FakeSvPublisher>()); },
        .makeVlanSetup = [] { return std::make_shared<SameVlan>(); },
        .hostExecutor = shuffle_.executor(),
        .listInterfaces = [](BridgePorts::Names) { return std::vector<NetworkInterfaceInfo>(); },
        .blockingExecutor = shuffle_.executor(),
        .makeAdvertiser =
            [this](std::int32_t) { return std::make_unique<CountedAdvertiser>(advertisers_); },
        .recoveryPause = 0ms,
    };
  }

  template <class Publisher>
  std::shared_ptr<Publisher> madePublisher(std::shared_ptr<Publisher> publisher) {
    publisher->pause = pause();
    publisher->running = &publishers_;
    ++publishers_;
    return publisher;
  }

  void tell(const std::string& what) const {
    if (isTold_) std::cout << what << std::endl;
  }
  int draw(int count) { return static_cast<int>(lot_() % static_cast<unsigned>(count)); }

  // The owner's calls end when they end.
  template <class T>
  void begin(const char* name, asio::awaitable<T> task) {
    tell(name);
    ++calls_;
    asio::co_spawn(io_, std::move(task), [this](std::exception_ptr, auto&&...) { --calls_; });
  }
  void beginStart() {
    ++starts_;
    begin("start", server_->start(kDefaultBridgePort));
  }
  void beginStop() {
    tell("stop");
    ++calls_;
    ++stops_;
    asio::co_spawn(io_, server_->stop(), [this, starts = starts_.load()](std::exception_ptr) {
      --calls_;
      --stops_;
      // Nobody has started it again; with threads nobody knows.
      if (starts == starts_ && !isThreaded_) checkThatNothingRuns();
    });
  }

  bool isListening() {
    const auto listener = transport_.listener();
    return listener && listener->isStarted && !listener->isCancelled;
  }

  void connect() {
    const bool isStopping = stops_ != 0;
    if (!isListening()) return;
    Client client(++connected_);
    tell("connect " + std::to_string(connected_));
    everybody_.push_back(client.connection);
    transport_.listener()->accept(client.connection);
    if (isStopping) return;  // It is refused, or closed soon.
    if (draw(8) != 0) client.ask(commands().back());
    clients_.push_back(std::move(client));
  }

  void disconnect(std::size_t index) {
    Client client = clients_[index];
    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
    const int how = draw(3);
    tell("disconnect " + std::to_string(client.number) + " " + std::to_string(how));
    if (how == 0) client.connection->reset();
    if (how == 1) client.connection->close(TransportCancelled{});
    if (how == 2) client.connection->close(TransportFailed{asio::error::timed_out});
  }

  void ask(Client& client) {
    if (client.asked.size() > 3) return;
    // Those in front come more often.
    const int count = static_cast<int>(commands().size());
    const auto& command = commands()[static_cast<std::size_t>(draw(1 + draw(count)))];
    tell("client " + std::to_string(client.number) + ": " + command.text);
    client.ask(command);
  }

  void yieldMessage() {
    GooseMessage message;
    message.sqNum = ++sqNum_;
    goose_.yield({message});
    SvCapturedFrame frame;
    frame.pdu = {0x40, 0};
    sv_.yield({frame});
  }

  void act() {
    const int what = draw(100);
    if (what < 10 && clients_.size() < 5) {
      connect();
    } else if (what < 60 && !clients_.empty()) {
      ask(clients_[static_cast<std::size_t>(draw(static_cast<int>(clients_.size())))]);
    } else if (what < 66 && !clients_.empty()) {
      disconnect(static_cast<std::size_t>(draw(static_cast<int>(clients_.size()))));
    } else if (what < 82) {
      yieldMessage();
    } else if (what < 86) {
      tell("GOOSE capture dies");
      goose_.die("The interface disappeared");
    } else if (what < 88) {
      tell("SV capture dies");
      sv_.die("The interface disappeared");
    } else if (what < 92) {
      goose_.isDown = draw(3) == 0;
      sv_.isDown = draw(3) == 0;
    } else if (what < 94) {
      begin("owner sets bus1", server_->setActiveInterface("bus1"));
    } else if (what < 95) {
      beginStop();
      clients_.clear();  // Nobody has to expect an answer any more.
    } else if (what < 98) {
      beginStart();
    }
  }

  void letOthersRun() {
    if (isThreaded_) {
      if (draw(4) == 0) std::this_thread::sleep_for(std::chrono::microseconds(draw(200)));
      return;
    }
    for (int steps = draw(pace_); steps > 0; --steps) {
      io_.restart();
      if (draw(1 + patience_) == 0) {
        shuffle_.runOne(lot_());
      } else {
        io_.poll_one();
      }
    }
  }

  /// Lets everything come to rest. Whether the condition holds in the end.
  template <class Condition>
  bool reach(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    for (int steps = 0; steps < 100'000; ++steps) {
      bool isIdle = false;
      if (isThreaded_) {
        std::this_thread::sleep_for(100us);
        isIdle = std::chrono::steady_clock::now() > deadline;
      } else {
        io_.restart();
        isIdle = io_.poll() == 0 && !shuffle_.runOne(lot_());
      }
      for (auto& client : clients_) client.take();
      if (isIdle) break;
      if (isThreaded_ && condition()) break;
    }
    return condition();
  }
  bool everyCommandIsAnswered() {
    return std::all_of(clients_.begin(), clients_.end(),
                       [](const Client& client) { return client.asked.empty(); });
  }

  void checkThatItSettles() {
    tell("--- all settles");
    goose_.isDown = sv_.isDown = false;
    ASSERT_TRUE(reach([this] { return calls_ == 0; })) << "a call of the owner never ends";
    beginStart();
    ASSERT_TRUE(reach([this] { return calls_ == 0 && isListening() && advertisers_ == 1; }));
    connect();
    for (auto& client : clients_) client.ask(commands().back());
    ASSERT_TRUE(reach([this] { return everyCommandIsAnswered(); })) << "an answer is missing";
    int gooseSubscribers = 0;
    int svSubscribers = 0;
    for (const auto& client : clients_) {
      gooseSubscribers += client.hasGoose ? 1 : 0;
      svSubscribers += client.hasSv ? 1 : 0;
    }
    EXPECT_TRUE(reach([&] {
      return goose_.running == std::min(gooseSubscribers, 1) &&
             sv_.running == std::min(svSubscribers, 1);
    })) << goose_.running
        << " GOOSE captures for " << gooseSubscribers << " subscribers, " << sv_.running
        << " SV captures for " << svSubscribers;
    const Command status{R"({"cmd":"unpublish_goose"})", "bridge_status", {}};
    for (auto& client : clients_) client.ask(status);
    ASSERT_TRUE(reach([this] { return everyCommandIsAnswered(); }));
    checkStatus(gooseSubscribers != 0);
    checkDelivery(status);
  }

  void checkStatus(bool isCapturing) {
    for (const auto& client : clients_) {
      EXPECT_EQ(client.lastStatus["isCapturing"], isCapturing);
      const std::string active = client.lastStatus["activeInterface"];
      const std::string captured = isCapturing ? goose_.interfaces.back() : active;
      EXPECT_EQ(captured, active);
      EXPECT_EQ(preferences_.read(kActiveInterfaceKey).value_or(active), active);
    }
    EXPECT_LE(goose_.mostRunning, 1);
    EXPECT_LE(sv_.mostRunning, 1);
    EXPECT_EQ(goose_.dropped + sv_.dropped, 0);
  }

  void checkDelivery(const Command& barrier) {
    for (auto& client : clients_) client.events.clear();
    const std::int64_t last = sqNum_ + 1;
    yieldMessage();
    reach([&] {
      return std::all_of(clients_.begin(), clients_.end(), [&](const Client& client) {
        return (!client.hasGoose || client.lastSqNum == last) &&
               (!client.hasSv || client.events.contains("sv_apdu"));
      });
    });
    for (auto& client : clients_) {
      EXPECT_EQ(client.lastSqNum == last, client.hasGoose) << client.number;
      EXPECT_EQ(client.events["sv_apdu"], client.hasSv ? 1 : 0) << client.number;
      client.ask(barrier);
    }
    EXPECT_TRUE(reach([this] { return everyCommandIsAnswered(); }));
  }

  void checkThatNothingRuns() {
    EXPECT_EQ(goose_.running + sv_.running, 0) << "a capture outlives stop()";
    EXPECT_EQ(publishers_, 0) << "a publisher outlives stop()";
    EXPECT_EQ(advertisers_, 0);
  }

  void checkThatItStops() {
    if (isThreaded_) reach([this] { return calls_ == 0; });
    if (draw(2) == 0) {
      while (!clients_.empty()) disconnect(0);
      reach([] { return true; });
    }
    for (auto& client : clients_) ask(client);
    for (int i = draw(6); i > 0; --i) letOthersRun();
    beginStop();
    clients_.clear();
    for (int i = 0; i < 3; ++i) {
      letOthersRun();
      connect();
    }
    ASSERT_TRUE(reach([this] { return calls_ == 0; })) << "stop() never ends";
    EXPECT_TRUE(reach([this] {
      return std::all_of(everybody_.begin(), everybody_.end(), [](const auto& connection) {
        return connection->isClosed() && connection.use_count() == 1;
      });
    })) << "a connection outlives stop(), or somebody still waits for its messages";
    everybody_.clear();
    checkThatNothingRuns();
  }

  std::mt19937_64 lot_;
  bool isThreaded_;
  bool isTold_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  Shuffle shuffle_;
  std::vector<std::thread> threads_;
  std::atomic<bool> isOver_ = false;
  FakeTransport transport_;
  MemoryPreferences preferences_;
  FakeCaptures<GooseMessage> goose_{io_};
  FakeCaptures<SvCapturedFrame> sv_{io_};
  std::atomic<int> publishers_ = 0;
  std::atomic<int> advertisers_ = 0;
  std::atomic<int> calls_ = 0;
  std::atomic<int> starts_ = 0;
  std::atomic<int> stops_ = 0;  // Under way.
  std::uint32_t sqNum_ = 0;
  int connected_ = 0;
  int pace_ = 1;      // Steps between two acts, at most.
  int patience_ = 1;  // Steps that a wait of the fakes takes.
  std::vector<Client> clients_;
  std::vector<std::shared_ptr<FakeConnection>> everybody_;
  std::shared_ptr<BridgeServer> server_;
};

void runSeeds(std::uint64_t count, int threads) {
  const char* only = std::getenv("TARNLINK_RACE_SEED");
  const std::uint64_t first = only == nullptr ? 1 : std::stoull(only);
  const std::uint64_t last = only == nullptr ? count : first;
  for (std::uint64_t seed = first; seed <= last && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("TARNLINK_RACE_SEED=" + std::to_string(seed));
    Race(seed, threads, only != nullptr).run();
  }
}

TEST(BridgeServerRaceTest, EveryOrderKeepsThePromises) {
  runSeeds(1'000, 0);
}

TEST(BridgeServerRaceTest, ThreadsKeepThePromisesToo) {
  runSeeds(30, 2);
}

}  // namespace
}  // namespace tarnlink::test
