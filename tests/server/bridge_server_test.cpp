#include <gtest/gtest.h>

#include "tests/server/bridge_harness.h"

namespace tarnlink::test {
using namespace goosestack;
using namespace std::chrono_literals;
namespace {

constexpr const char* kSubscribe = R"({"cmd":"subscribe_goose"})";
constexpr const char* kSubscribeSv = R"({"cmd":"subscribe_sv"})";
constexpr const char* kUnsubscribe = R"({"cmd":"unsubscribe_goose"})";

GooseMessage message(std::uint16_t appId = 4096, std::string goCBRef = "IED1CTRL/LLN0$GO$gcb01") {
  GooseMessage result;
  result.appId = appId;
  result.goCBRef = std::move(goCBRef);
  return result;
}

SvCapturedFrame svFrame(Bytes pdu) {
  SvCapturedFrame result;
  result.pdu = std::move(pdu);
  return result;
}

Json error(std::string_view text, int code) {
  return {{"event", "error"}, {"error", text}, {"code", code}};
}

std::string publishCommand(const std::string& more, const std::string& end = "}") {
  return R"({"cmd":"publish_goose","appId":4096,"goCBRef":"A/LLN0$GO$g","dataSetRef":"A/LLN0$d",)"
         R"("confRev":1)" +
         more + end;
}

class BridgeServerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(bridge.start()); }
  BridgeHarness bridge;
};

// Start and stop -----------------------------------------------------------------------------

TEST(BridgeServerStartTest, FailsAsTheTransportDoes) {
  const auto busy = make_error_code(boost::system::errc::address_in_use);
  const struct {
    std::uint16_t port;
    TransportState first;
    BridgeError::Case expected;
    std::string description;
  } cases[] = {
      {0, TransportReady{}, BridgeError::Case::invalidPort, "Invalid bridge port: 0"},
      {8765, TransportFailed{busy}, BridgeError::Case::transport, busy.message()},
      {8765, TransportCancelled{}, BridgeError::Case::cancelled, "Bridge listener was cancelled"},
  };
  for (const auto& c : cases) {
    BridgeHarness bridge;
    bridge.transport.firstState = c.first;
    const auto started = bridge.await(bridge.server->start(c.port));
    ASSERT_TRUE(started && started->has_error()) << c.description;
    EXPECT_EQ(started->error().which(), c.expected);
    EXPECT_EQ(started->error().description(), c.description);
  }
}

TEST(BridgeServerStartTest, AListenerFailureAllowsANewStart) {
  BridgeHarness bridge;
  ASSERT_TRUE(bridge.start());
  EXPECT_TRUE(bridge.start()) << "a second start with a listener present is a no-op";
  EXPECT_EQ(bridge.transport.made, 1);
  bridge.transport.listener()->report(TransportFailed{asio::error::no_descriptors});
  EXPECT_TRUE(bridge.start());
  EXPECT_EQ(bridge.transport.made, 2);
}

TEST(BridgeServerStartTest, StopEndsAStartThatStillWaits) {
  BridgeHarness bridge;
  bridge.transport.firstState.reset();
  std::optional<BridgeResult<void>> started;
  asio::co_spawn(bridge.io, bridge.server->start(kDefaultBridgePort),
                 [&](std::exception_ptr, BridgeResult<void> result) { started = result; });
  bridge.settle();
  EXPECT_FALSE(started);
  EXPECT_TRUE(bridge.await(bridge.server->stop()));
  ASSERT_TRUE(started && started->has_error());
  EXPECT_EQ(started->error().which(), BridgeError::Case::cancelled);
}

TEST_F(BridgeServerTest, StopEndsEverythingAndCountersSurvive) {
  const auto client = bridge.authenticated();
  bridge.say(client, kSubscribe);
  bridge.say(client, publishCommand(R"(,"vlanId":5)"));
  bridge.goose.yield({message(), message()});
  bridge.settle();
  EXPECT_TRUE(bridge.await(bridge.server->stop()));
  EXPECT_TRUE(client->isCancelled);
  EXPECT_EQ(bridge.goose.running, 0);
  EXPECT_TRUE(bridge.goosePublisher->isStopped);
  EXPECT_TRUE(bridge.vlan.isCancelled) << "a pending administrator prompt must not outlive stop()";
  EXPECT_EQ(bridge.logLines.back(), "[BridgeServer] Stopped");

  ASSERT_TRUE(bridge.start());
  const auto next = bridge.authenticated();
  bridge.ask(next, publishCommand(R"(,"vlanId":5)"));
  EXPECT_EQ(bridge.vlansMade, 2) << "what stop() has cancelled is not used again";
  EXPECT_EQ(bridge.ask(next, kUnsubscribe).at(0)["messagesReceived"], 2);
}

TEST_F(BridgeServerTest, NothingBeginsDuringStopAndEveryStopWaitsForTheEnd) {
  bridge.goose.gate.reset();
  const auto client = bridge.authenticated();
  const auto publishing = bridge.authenticated();
  bridge.isHostBusy = true;
  bridge.say(publishing, publishCommand(R"(,"vlanId":5,"requestId":1)"));
  bridge.say(client, kSubscribe);
  EXPECT_FALSE(bridge.await(bridge.server->stop())) << "waits for the capture that is starting";
  EXPECT_FALSE(bridge.await(bridge.server->stop()));
  EXPECT_TRUE(bridge.connect()->isCancelled);
  EXPECT_FALSE(bridge.start());
  bridge.isHostBusy = false;
  bridge.goose.gate.set();
  bridge.settle();
  EXPECT_EQ(std::count(bridge.logLines.begin(), bridge.logLines.end(), "[BridgeServer] Stopped"),
            1);
  EXPECT_TRUE(publishing->sent.empty()) << "neither done nor failed";
  EXPECT_TRUE(bridge.goosePublisher->published.empty()) << "its link was ready too late";
}

// Authentication -----------------------------------------------------------------------------

TEST_F(BridgeServerTest, TheGateOpensWithTheCodeAlone) {
  const Json refused = error("Not authenticated — send auth with pairing code", 7);
  const Json undecodable = error("Invalid JSON command", -1);
  const auto client = bridge.connect();
  client->say(R"({"cmd":"ping"})", false);
  const struct {
    const char* text;
    Json expected;  // Members that the one answer must have.
  } steps[] = {
      {R"({"cmd":"ping","timestamp":17})", {{"event", "pong"}, {"originalTimestamp", 17}}},
      {R"({"cmd":"get_interfaces"})", refused},
      {kSubscribe, refused},
      {"{", undecodable},
      {R"({"cmd":"AUTH"})", undecodable},
      {R"({"cmd":"auth","token":"042138"})", {{"event", "auth_result"}, {"ok", false}}},
      {R"({"cmd":"auth"})", {{"event", "auth_result"}, {"ok", false}}},
      {R"({"cmd":"get_interfaces"})", refused},
      {R"({"cmd":"auth","token":"042137"})", {{"event", "auth_result"}, {"ok", true}}},
      {R"({"cmd":"get_interfaces"})", {{"event", "interfaces"}, {"activeInterface", ""}}},
      {R"({"cmd":"auth","token":"000000"})", {{"event", "auth_result"}, {"ok", false}}},
      {R"({"cmd":"get_interfaces"})", {{"event", "interfaces"}}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.text);
    const auto events = bridge.ask(client, step.text);
    ASSERT_EQ(events.size(), 1U) << "binary messages have no answer";
    for (const auto& [key, value] : step.expected.items()) EXPECT_EQ(events[0][key], value);
  }
}

TEST_F(BridgeServerTest, AMarkedCommandEndsInOneEventWithItsMark) {
  const auto client = bridge.connect();
  const auto other = bridge.connect();  // Broadcasts reach all.
  const struct {
    std::string text;
    const char* event;
    const char* reason;    // Of errors.
    std::size_t told = 0;  // Broadcasts to the others.
  } steps[] = {
      {R"({"cmd":"ping")", "pong", ""},
      {R"({"cmd":"get_interfaces")", "error", "an auth with the pairing code has to succeed first"},
      {R"({"cmd":"auth","token":"042137")", "auth_result", ""},
      {R"({"cmd":"set_interface","interface":"eth1")", "done", "", 1},
      {R"({"cmd":"set_interface","interface":"eth.1")", "error",
       "interface: expected a letter followed by letters and digits, 15 in all at most, found "
       "\"eth.1\""},
      {R"({"cmd":"subscribe_goose")", "bridge_status", ""},
      {R"({"cmd":"subscribe_goose")", "bridge_status", ""},
      {R"({"cmd":"unsubscribe_goose")", "done", "", 1},
      {R"({"cmd":"subscribe_sv")", "done", ""},
      {R"({"cmd":"unsubscribe_sv")", "done", ""},
      {publishCommand(R"(,"vlanId":5)", ""), "bridge_status", ""},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"AA==")", "done", ""},
      {R"({"cmd":"publish_sv_apdu")", "error",
       "pduBase64: expected base64 with padding, found nothing"}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.text);
    const auto events = bridge.ask(client, step.text + R"(,"requestId":"text"})");
    ASSERT_EQ(events.size(), 1 + step.told);
    EXPECT_EQ(events.back()["event"], step.event);
    EXPECT_EQ(events.back()["requestId"], "text");
    EXPECT_EQ(events.back().value("reason", ""), step.reason);
    const auto broadcasts = bridge.take(other);
    EXPECT_EQ(broadcasts.size(), step.told);
    for (const Json& event : broadcasts) EXPECT_FALSE(event.contains("requestId"));
  }
  const auto refused = bridge.ask(client, R"({"cmd":"ping","requestId":1.5})").at(0);
  EXPECT_TRUE(refused.contains("reason") && !refused.contains("requestId")) << refused;
  const auto strict = bridge.ask(client, R"({"cmd":"publish_goose","strict":true})");
  EXPECT_TRUE(strict.at(0).contains("reason")) << strict;
}

TEST_F(BridgeServerTest, TheLogSaysWhyAPairedClientsCommandFailedAndNobodysTextFillsIt) {
  const auto client = bridge.authenticated();
  bridge.say(client, publishCommand(R"(,"strict":true,"vlanId":5000)"));
  EXPECT_TRUE(bridge.logLines.back().ends_with(
      ": Invalid JSON command (vlanId: expected an integer from 0 to 4094, found 5000)"))
      << bridge.logLines.back();
  bridge.goosePublisher->failure = GooseError::sendFailed("network is down");
  bridge.say(client, publishCommand(""));
  EXPECT_TRUE(bridge.logLines.back().ends_with(": Publish failed: network is down"));
  bridge.goosePublisher->failure.reset();
  const std::string text = ":\"" + std::string(100'000, 'x') + "\"";
  for (const std::string& command :
       {R"({"cmd":"subscribe_goose","appIdFilter")" + text + R"(,"goCBRefFilter")" + text + "}",
        R"({"cmd":"set_interface","interface")" + text + "}",
        R"({"cmd":"unpublish_goose","goCBRef")" + text + "}",
        publishCommand(R"(,"goCBRef")" + text)}) {
    bridge.say(client, command);
  }
  for (const auto& line : bridge.logLines) EXPECT_LT(line.size(), 1'000U);
  const auto lines = bridge.logLines.size();
  bridge.say(bridge.connect(), R"({"cmd":"nonsense"})");
  EXPECT_EQ(bridge.logLines.size(), lines + 1) << "the connection's; strangers cannot fill the log";
}

TEST_F(BridgeServerTest, WithoutDescriptorsEachCommandFailsAndTheClientIsHeardAfterwards) {
  const auto client = bridge.authenticated();
  const std::pair<std::string, Json> cases[] = {
      {kSubscribe, error("Start capture failed: Too many open files", 1)},
      {publishCommand(""), error("Publish failed: Too many open files", 2)},
      {kSubscribeSv, error("SV capture failed: Too many open files", 4)},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"AA=="})",
       error("SV publish failed: Too many open files", 5)},
      {R"({"cmd":"get_interfaces"})", error("Command failed: Too many open files", 8)}};
  bridge.ask(client, R"({"cmd":"set_interface","interface":"eth1"})");
  bridge.hasNoDescriptors = true;
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(bridge.ask(client, text), std::vector<Json>{expected});
  }
  bridge.hasNoDescriptors = false;
  bridge.ask(client, publishCommand(""));
  bridge.hasNoDescriptors = true;
  EXPECT_EQ(bridge.ask(client, publishCommand(R"(,"vlanId":5)")),
            std::vector<Json>{error("VLAN-Setup fehlgeschlagen: Too many open files", 3)});
  bridge.hasNoDescriptors = false;
  EXPECT_EQ(bridge.ask(client, kSubscribe).at(0)["isCapturing"], true);
}

TEST_F(BridgeServerTest, AClientWhoseReceivingFailsIsRemoved) {
  const auto client = bridge.authenticated();
  bridge.say(client, kSubscribe);
  client->failure = std::make_exception_ptr(std::bad_alloc());
  bridge.say(client, R"({"cmd":"ping"})");
  EXPECT_TRUE(client->isCancelled);
  EXPECT_EQ(bridge.goose.running, 0);
  EXPECT_EQ(bridge.count("[BridgeServer] Internal error: std::bad_alloc"), 1);
}

// The bucket is empty from the start, and a token comes every 300 ms.
class AuthDelayTest : public ::testing::Test {
 protected:
  static constexpr std::chrono::milliseconds kRefill{300};
  static constexpr const char* kWrong = R"({"cmd":"auth","token":"000000"})";
  static constexpr const char* kRight = R"({"cmd":"auth","token":"042137"})";

  void SetUp() override {
    ASSERT_TRUE(bridge.start());
    guesser = connect("192.0.2.1");
    owner = connect("192.0.2.2");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(bridge.ask(guesser, kWrong).at(0)["ok"], false);
  }
  std::shared_ptr<FakeConnection> connect(const char* peer) {
    auto client = bridge.connect();
    client->peerName = peer;
    return client;
  }
  void runFor(double refills) {
    bridge.runFor(std::chrono::duration_cast<std::chrono::milliseconds>(refills * kRefill));
  }
  std::vector<std::string> events(const std::shared_ptr<FakeConnection>& client) {
    std::vector<std::string> names;
    for (const Json& event : bridge.take(client)) names.push_back(event["event"]);
    return names;
  }

  BridgeHarness bridge{{}, AuthDelay{.burst = 2, .refill = kRefill}};
  std::shared_ptr<FakeConnection> guesser;
  std::shared_ptr<FakeConnection> owner;
};

TEST_F(AuthDelayTest, WrongCodesWaitRightOnesFollowAndNobodyIsLeftBehind) {
  const auto leaving = connect("192.0.2.3");
  bridge.say(leaving, kWrong);
  guesser->say(kWrong);
  EXPECT_TRUE(bridge.ask(owner, kRight).empty()) << "only a comparison tells it from a guess";
  EXPECT_EQ(owner->standing, Standing::waiting);
  EXPECT_EQ(bridge.count("[BridgeServer] Many wrong pairing codes, the latest attempt from "
                         "192.0.2.3: attempts wait for their turn"),
            1);
  EXPECT_EQ(bridge.count("Many wrong"), 1);
  leaving->reset();
  const auto starter = bridge.connect();
  const auto admitted =
      bridge.ask(starter, std::string(R"({"cmd":"auth","token":")") + test::kOwnerToken + "\"}");
  ASSERT_EQ(admitted.size(), 2U) << "who started the bridge need not queue behind guessers";
  EXPECT_EQ(admitted[0]["ok"], true);
  EXPECT_EQ(admitted[1]["activeInterface"], "");
  runFor(1.5);
  EXPECT_EQ(bridge.take(owner).at(0)["ok"], true) << "who has left takes no place";
  EXPECT_EQ(owner->standing, Standing::admitted);
  EXPECT_EQ(bridge.take(guesser).size(), 1U) << "a right code costs no token";
  EXPECT_EQ(guesser->standing, Standing::stranger);

  for (int i = 0; i < 4; ++i) guesser->say(kWrong);
  bridge.settle();
  EXPECT_EQ(bridge.ask(owner, kWrong).at(0)["ok"], false) << "who is in need not wait";
  bridge.say(owner, kSubscribe);
  EXPECT_EQ(bridge.take(starter).at(0)["activeInterface"], "en0") << "chosen by the bridge";
  EXPECT_TRUE(bridge.await(bridge.server->stop())) << "waits for no attempt";
}

TEST_F(AuthDelayTest, WhoWaitsGetsPongsAndItsCommandsInTheirOrder) {
  constexpr const char* kPing = R"({"cmd":"ping"})";
  bridge.say(owner, kRight);
  bridge.say(owner, R"({"cmd":"get_interfaces"})");
  bridge.say(owner, R"({"cmd":"subscribe_goose","requestId":1})");
  bridge.say(owner, kPing);
  bridge.say(owner, kPing);
  EXPECT_EQ(events(owner), (std::vector<std::string>{"pong", "pong"}));
  // More than are held: read on afterwards, all of them.
  for (int i = 0; i < 20; ++i) owner->say(R"({"cmd":"set_interface","interface":"-"})");
  bridge.say(owner, kPing);
  EXPECT_TRUE(events(owner).empty()) << "it is read no further";
  runFor(1.5);
  std::vector<std::string> expected{"auth_result", "interfaces", "bridge_status"};
  expected.resize(23, "error");
  expected.emplace_back("pong");
  EXPECT_EQ(events(owner), expected);
  const auto prompt = connect("192.0.2.4");
  prompt->say(kRight);
  bridge.say(prompt, kPing);
  EXPECT_EQ(events(prompt), (std::vector<std::string>{"auth_result", "pong"})) << "did not wait";
}

TEST(PairingCodeTest, AMalformedCodeIsReplacedAndStored) {
  const struct {
    std::optional<std::string> stored;
    bool isKept;
  } cases[] = {{"000123", true},  {"12345", false}, {"1234567", false},
               {"12a456", false}, {"", false},      {std::nullopt, false}};
  for (const auto& c : cases) {
    MemoryPreferences preferences;
    if (c.stored) preferences.write(kPairingCodeKey, *c.stored);
    const std::string code = pairingCode(preferences);
    EXPECT_EQ(code == c.stored, c.isKept) << c.stored.value_or("(absent)");
    EXPECT_EQ(code.size(), 6U);
    EXPECT_EQ(code.find_first_not_of("0123456789"), std::string::npos);
    EXPECT_EQ(pairingCode(preferences), code);
  }
}

TEST_F(BridgeServerTest, ALostClientHasOneLogLine) {
  bridge.connect()->close(TransportFailed{asio::error::timed_out});
  bridge.settle();
  EXPECT_EQ(bridge.count(" failed: ") + bridge.count("Receive error"), 1);
  const auto vanished = bridge.connect();
  vanished->reset();
  bridge.settle();
  EXPECT_EQ(bridge.count("Receive error"), 1);
  EXPECT_TRUE(vanished->isCancelled) << "a connection that failed is closed too";
  bridge.connect()->reset(WebSocketError::peerClosed);
  bridge.settle();
  EXPECT_EQ(bridge.count("Receive error"), 1) << "a close handshake is no error";
  EXPECT_EQ(bridge.count("Client disconnected: "), 1);
}

// GOOSE subscriptions ------------------------------------------------------------------------

TEST(GooseFilterTest, MatchesDecimalAppIdAndPartOfTheReference) {
  const struct {
    std::optional<std::string> appId;
    std::optional<std::string> goCBRef;
    bool matches;
  } cases[] = {
      {std::nullopt, std::nullopt, true}, {"", "", true},
      {"4096", std::nullopt, true},       {"409", std::nullopt, false},
      {"04096", std::nullopt, false},     {std::nullopt, "LLN0", true},
      {std::nullopt, "lln0", false},      {"4096", "gcb01", true},
  };
  for (const auto& c : cases) {
    const GooseFilter filter{c.appId, c.goCBRef};
    EXPECT_EQ(filter.matches(message()), c.matches)
        << c.appId.value_or("-") << ' ' << c.goCBRef.value_or("-");
  }
}

TEST_F(BridgeServerTest, MessagesReachMatchingSubscribersOnceEncoded) {
  bridge.interfaces = {{"eth7", "Bay 7", true, "02:00:00:00:00:07", true}};
  const auto all = bridge.authenticated();
  const auto some = bridge.authenticated();
  const auto none = bridge.authenticated();
  EXPECT_EQ(bridge.ask(all, kSubscribe)[0]["isCapturing"], true);
  EXPECT_EQ(bridge.goose.interfaces, std::vector<std::string>{"eth7"});
  EXPECT_EQ(BridgeServer::sharedActiveInterface(), "eth7");
  bridge.ask(some, R"({"cmd":"subscribe_goose","appIdFilter":"1"})");
  bridge.ask(some, R"({"cmd":"subscribe_goose","appIdFilter":"2"})");
  bridge.goose.yield({message(1), message(2)});
  bridge.settle();
  ASSERT_EQ(all->sent.size(), 2U);
  ASSERT_EQ(some->sent.size(), 1U) << "the second filter replaced the first";
  EXPECT_EQ(some->sent[0], all->sent[1]) << "one frame serves all";
  EXPECT_TRUE(none->sent.empty());
  EXPECT_EQ(bridge.goose.mostRunning, 1);
  bridge.goose.yield({message(3)});
  bridge.settle();
  std::vector<int> appIds;
  for (const Json& event : bridge.take(all)) appIds.push_back(event["message"]["appId"]);
  EXPECT_EQ(appIds, (std::vector{1, 2, 3}));
}

TEST_F(BridgeServerTest, AFailedStartAnswersAndDropsTheSubscription) {
  bridge.goose.failure = bridge.sv.failure = GooseError::permissionDenied();
  const auto client = bridge.authenticated();
  EXPECT_EQ(bridge.ask(client, kSubscribe),
            std::vector<Json>{error("Start capture failed: permission denied", 1)});
  EXPECT_EQ(bridge.ask(client, kSubscribeSv),
            std::vector<Json>{error("SV capture failed: permission denied", 4)});
  EXPECT_EQ(bridge.goose.interfaces, std::vector<std::string>{"en0"})
      << "the last resort where discovery finds nothing";
  EXPECT_EQ(bridge.count("[BridgeServer] ✗ capture start failed: permission denied") +
                bridge.count("[BridgeServer] SV: capture start failed: permission denied"),
            2);
  bridge.goose.failure.reset();
  bridge.sv.failure.reset();
  const auto other = bridge.authenticated();
  bridge.say(other, kSubscribe);
  bridge.say(other, kSubscribeSv);
  bridge.goose.yield({message()});
  bridge.sv.yield({svFrame({1, 2, 3})});
  bridge.settle();
  EXPECT_EQ(other->sent.size(), 3U);
  EXPECT_TRUE(client->sent.empty());
}

TEST_F(BridgeServerTest, AClientThatIsLostWhileItsCommandWaitsIsRemovedAtOnce) {
  const auto client = bridge.authenticated();
  const auto other = bridge.authenticated();
  bridge.say(client, kSubscribeSv);
  bridge.isHostBusy = true;
  bridge.say(client, publishCommand(R"(,"vlanId":5)"));
  EXPECT_EQ(bridge.sv.running, 1);
  client->lose();
  bridge.settle();
  EXPECT_EQ(bridge.sv.running, 0);
  EXPECT_TRUE(client->isCancelled);
  bridge.isHostBusy = false;
}

TEST_F(BridgeServerTest, AStopThatWasDecidedBeforeASubscriptionEndsNoCapture) {
  bridge.sv.gate.reset();
  const auto first = bridge.authenticated();
  bridge.say(first, kSubscribeSv);
  first->close(TransportCancelled{});
  bridge.settle();
  const auto second = bridge.authenticated();
  bridge.say(second, kSubscribeSv);
  bridge.sv.gate.set();
  bridge.settle();
  EXPECT_EQ(bridge.sv.interfaces.size(), 1U);
  EXPECT_EQ(bridge.sv.running, 1);
  bridge.say(second, R"({"cmd":"set_interface","interface":"eth9"})");
  bridge.sv.die("The interface disappeared");
  bridge.runFor(100ms);
  EXPECT_EQ(bridge.sv.interfaces, (std::vector<std::string>{"en0", "en0"})) << "which it joined";
}

TEST_F(BridgeServerTest, ADeadCaptureIsToldAndTriedAgain) {
  const auto client = bridge.authenticated();
  bridge.say(client, kSubscribe);
  client->sent.clear();
  bridge.goose.failure = GooseError::pcapOpenFailed("No such device");
  bridge.goose.die("The interface disappeared");
  bridge.settle();
  EXPECT_EQ(bridge.take(client).at(0)["isCapturing"], false);
  EXPECT_EQ(bridge.goose.running, 0);
  EXPECT_EQ(bridge.count("[BridgeServer] ✗ capture on en0 ended: The interface disappeared"), 1);
  bridge.runFor(100ms);
  EXPECT_GT(bridge.goose.interfaces.size(), 1U) << "each try failed";
  EXPECT_TRUE(client->sent.empty());
  bridge.goose.failure.reset();
  bridge.runFor(100ms);
  EXPECT_EQ(bridge.goose.running, 1);
  EXPECT_EQ(bridge.take(client).at(0)["isCapturing"], true);
  EXPECT_EQ(bridge.count("[BridgeServer] ✓ capture runs again on en0"), 1);
}

TEST_F(BridgeServerTest, ASubscriptionThatRevivesACaptureTellsEverybodyOnce) {
  const auto first = bridge.authenticated();
  const auto second = bridge.authenticated();
  for (const char* text : {kSubscribe, kSubscribeSv}) {
    SCOPED_TRACE(text);
    bridge.say(first, text);
    bridge.goose.failure = bridge.sv.failure = GooseError::pcapOpenFailed("No such device");
    bridge.goose.die("The interface disappeared");
    bridge.sv.die("The interface disappeared");
    bridge.settle();
    bridge.goose.failure.reset();
    bridge.sv.failure.reset();
    bridge.take(first);
    bridge.take(second);
    EXPECT_EQ(bridge.ask(second, text).size(), 1U);
    const auto told = bridge.take(first);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0]["isCapturing"], text == kSubscribe);
    bridge.say(first, kUnsubscribe);
    bridge.say(second, kUnsubscribe);
  }
}

TEST_F(BridgeServerTest, AnSvCaptureIsTriedAgainWhereItWas) {
  const auto client = bridge.authenticated();
  const auto other = bridge.authenticated();
  bridge.say(client, kSubscribeSv);
  bridge.say(client, R"({"cmd":"set_interface","interface":"eth9"})");
  for (const std::size_t starts : {2, 3}) {
    bridge.sv.die("The interface disappeared");
    bridge.runFor(100ms);
    EXPECT_EQ(bridge.sv.interfaces, std::vector<std::string>(starts, "en0"));
  }
  EXPECT_EQ(bridge.count("[BridgeServer] SV: ✗ capture on en0 ended: The interface disappeared"),
            2);
  bridge.sv.die("The interface disappeared");
  bridge.settle();
  bridge.say(other, kSubscribeSv);
  EXPECT_EQ(bridge.sv.interfaces.back(), "en0") << "where the others are";
  bridge.say(client, R"({"cmd":"unsubscribe_sv"})");
  bridge.say(other, R"({"cmd":"unsubscribe_sv"})");
  bridge.say(other, kSubscribeSv);
  EXPECT_EQ(bridge.sv.interfaces.back(), "eth9");
  bridge.sv.die("The interface disappeared");
  bridge.settle();
  EXPECT_TRUE(bridge.await(bridge.server->stop())) << "does not wait for the next try";
}

TEST_F(BridgeServerTest, FramesThatTheKernelDroppedAreLogged) {
  const auto client = bridge.authenticated();
  bridge.say(client, kSubscribe);
  bridge.say(client, kSubscribeSv);
  bridge.goose.drop({3, 8, false});
  bridge.sv.drop({0, 9, true});
  bridge.settle();
  EXPECT_EQ(bridge.count("[BridgeServer] ✗ capture on en0: the kernel dropped 3 frames, 8 so far"),
            1);
  EXPECT_EQ(
      bridge.count(
          "[BridgeServer] SV: ✗ capture on en0 has ended; the kernel dropped 9 frames in all"),
      1);
}

TEST_F(BridgeServerTest, AStreamThatEndsByItselfClearsTheFlag) {
  const auto client = bridge.authenticated();
  bridge.say(client, kSubscribe);
  bridge.goose.latest().current.lock()->finish();
  bridge.settle();
  client->sent.clear();
  const auto other = bridge.authenticated();
  EXPECT_EQ(bridge.ask(other, kSubscribe)[0]["isCapturing"], true);
  EXPECT_EQ(bridge.goose.running, 1) << "the dead capture was stopped before the new one";
}

// Interface changes --------------------------------------------------------------------------

TEST_F(BridgeServerTest, SetInterfaceChecksStoresAndMovesTheCapture) {
  const auto client = bridge.authenticated();
  EXPECT_EQ(bridge.ask(client, R"({"cmd":"set_interface","interface":"en-0"})"),
            std::vector<Json>{error("Invalid interface name", 6)});
  EXPECT_EQ(bridge.ask(client, R"({"cmd":"set_interface","interface":"eth1"})")[0]["isCapturing"],
            false);
  EXPECT_EQ(bridge.preferences.texts["activeInterface"], "eth1");
  bridge.ask(client, kSubscribe);
  const auto moved = bridge.ask(client, R"({"cmd":"set_interface","interface":"eth2"})");
  EXPECT_EQ(bridge.goose.interfaces, (std::vector<std::string>{"eth1", "eth2"}));
  EXPECT_EQ(moved.back()["isCapturing"], true);
  EXPECT_EQ(bridge.goose.mostRunning, 1);

  bridge.goose.failure = GooseError::pcapOpenFailed("no such device");
  const auto lost = bridge.ask(client, R"({"cmd":"set_interface","interface":"eth3"})");
  EXPECT_EQ(lost.back()["isCapturing"], false);
  bridge.goose.failure.reset();
  const auto found = bridge.ask(client, R"({"cmd":"set_interface","interface":"eth2"})");
  EXPECT_EQ(found.back()["isCapturing"], true) << "its subscriber was still waiting";
  bridge.goose.yield({message()});
  bridge.settle();
  EXPECT_EQ(bridge.take(client).back()["event"], "goose_message");
}

TEST_F(BridgeServerTest, WhatWasCapturedBeforeAnInterfaceChangeArrives) {
  const auto client = bridge.authenticated();
  bridge.ask(client, R"({"cmd":"subscribe_goose","appIdFilter":"7"})");
  for (int i = 0; i < 1'000; ++i) bridge.goose.yield(std::vector<GooseMessage>(64));
  bridge.goose.yield({message(7)});
  const auto events = bridge.ask(client, R"({"cmd":"set_interface","interface":"eth1"})");
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0]["event"], "goose_message") << "the last of what had queued";
  EXPECT_EQ(events[1]["activeInterface"], "eth1");
}

TEST(BridgeServerStartTest, TheStoredInterfaceIsRestored) {
  BridgeHarness bridge(std::map<std::string, std::string>{{"activeInterface", "eth5"}});
  EXPECT_EQ(bridge.count("[BridgeServer] restored active interface: eth5"), 1);
  ASSERT_TRUE(bridge.start());
  bridge.say(bridge.authenticated(), kSubscribe);
  EXPECT_EQ(bridge.goose.interfaces, std::vector<std::string>{"eth5"});
}

// Publishing ---------------------------------------------------------------------------------

TEST_F(BridgeServerTest, PublicationsLeaveOnTheInterfaceMeant) {
  const auto client = bridge.authenticated();
  const struct {
    const char* active;
    const char* more;
    const char* expected;
  } cases[] = {
      {"en0", "", "en0"},
      {"eth5", "", "eth5"},
      {"eth5", R"(,"interface":"en0")", "eth5"},
      {"eth5", R"(,"interface":"eth7")", "eth7"},
  };
  for (const auto& c : cases) {
    bridge.ask(client, std::string(R"({"cmd":"set_interface","interface":")") + c.active + "\"}");
    const auto events = bridge.ask(client, publishCommand(c.more));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0]["event"], "bridge_status");
    EXPECT_EQ(bridge.goosePublisher->published.back().interface, c.expected);
  }
  EXPECT_EQ(bridge.ask(client, kUnsubscribe)[0]["messagesPublished"], 4);
}

TEST_F(BridgeServerTest, AVlanPublicationLeavesUntaggedOnTheVlanInterface) {
  const auto client = bridge.authenticated();
  const auto other = bridge.authenticated();
  bridge.isHostBusy = true;
  EXPECT_TRUE(
      bridge.ask(client, publishCommand(R"(,"interface":"eth7","vlanId":100,"vlanPriority":6)"))
          .empty());
  bridge.vlan.ready = "vlan6";
  EXPECT_EQ(bridge.ask(other, publishCommand(R"(,"vlanId":6)")).size(), 1U)
      << "over a ready link it waits for nobody's prompt";
  bridge.isHostBusy = false;
  bridge.settle();
  const auto& published = bridge.goosePublisher->published;
  ASSERT_EQ(published.size(), 2U);
  EXPECT_EQ(published[0].interface, "vlan6");
  EXPECT_EQ(published[1].interface, "vlan100");
  EXPECT_EQ(published[1].vlanId, 0);
  EXPECT_EQ(published[1].vlanPriority, 6);
  EXPECT_FALSE(published[1].vlanTagged);
  EXPECT_EQ(bridge.vlan.parents, std::vector<std::string>{"eth7"});
}

TEST_F(BridgeServerTest, RefusedPublicationsAnswerWithTheirCode) {
  const auto client = bridge.authenticated();
  for (const char* name : {"en 0", "en-0", "0en", ""}) {
    const std::string more = std::string(R"(,"vlanId":5,"interface":")") + name + "\"";
    EXPECT_EQ(bridge.ask(client, publishCommand(more)),
              std::vector<Json>{error("Invalid interface name", 6)});
  }
  EXPECT_TRUE(bridge.vlan.parents.empty()) << "refused before any VLAN work";
  bridge.vlan.failure = VlanError{-128, "Benutzer hat abgebrochen"};
  EXPECT_EQ(bridge.ask(client, publishCommand(R"(,"vlanId":5)")),
            std::vector<Json>{error("VLAN-Setup fehlgeschlagen: Benutzer hat abgebrochen", 3)});
  bridge.goosePublisher->failure = GooseError::sendFailed("network is down");
  EXPECT_EQ(bridge.ask(client, publishCommand("")),
            std::vector<Json>{error("Publish failed: network is down", 2)});
  bridge.svPublisher->failure = GooseError::notRunning();
  EXPECT_EQ(bridge.ask(client, R"({"cmd":"publish_sv_apdu","pduBase64":"AA=="})"),
            std::vector<Json>{error("SV publish failed: not running", 5)});
  EXPECT_EQ(bridge.ask(client, R"({"cmd":"publish_sv_apdu","pduBase64":"","interface":"a.b"})"),
            std::vector<Json>{error("Invalid interface name", 6)});
  EXPECT_EQ(bridge.ask(client, kUnsubscribe)[0]["messagesPublished"], 0);
}

TEST_F(BridgeServerTest, UnpublishNamesWhatItStops) {
  const auto client = bridge.authenticated();
  EXPECT_EQ(bridge.ask(client, R"({"cmd":"unpublish_goose"})")[0]["event"], "bridge_status");
  EXPECT_TRUE(bridge.goosePublisher->unpublished.empty()) << "nothing was ever published";
  bridge.ask(client, publishCommand(""));
  bridge.ask(client, R"({"cmd":"unpublish_goose","goCBRef":"A/LLN0$GO$g"})");
  bridge.ask(client, R"({"cmd":"unpublish_goose","goCBRef":""})");
  EXPECT_EQ(bridge.goosePublisher->unpublished,
            (std::vector<std::string>{"A/LLN0$GO$g", "(none)"}));
  EXPECT_EQ(bridge.count("[BridgeServer] ✓ unpublished GOOSE (all)"), 1);
}

// Sampled Values -----------------------------------------------------------------------------

TEST_F(BridgeServerTest, SvFramesGoByAppId) {
  const auto all = bridge.authenticated();
  const auto some = bridge.authenticated();
  EXPECT_TRUE(bridge.ask(all, kSubscribeSv).empty()) << "success has no event";
  EXPECT_TRUE(bridge.ask(some, R"({"cmd":"subscribe_sv","appIdFilter":16384})").empty());
  EXPECT_EQ(bridge.sv.interfaces.size(), 1U);
  bridge.sv.yield({svFrame({0x40, 0x00}), svFrame({0x40, 0x01}), svFrame({0x40}), svFrame({})});
  bridge.settle();
  EXPECT_EQ(all->sent.size(), 4U);
  EXPECT_EQ(some->sent.size(), 3U) << "a frame too short for an APPID goes to everybody";
  bridge.say(all, R"({"cmd":"unsubscribe_sv"})");
  EXPECT_EQ(bridge.sv.running, 1);
  some->reset();
  bridge.settle();
  EXPECT_EQ(bridge.sv.running, 0);
  EXPECT_EQ(bridge.goose.interfaces.size(), 0U) << "GOOSE has a capture of its own";
}

TEST_F(BridgeServerTest, SvPayloadsPassUnchanged) {
  const auto client = bridge.authenticated();
  bridge.ask(client, R"({"cmd":"set_interface","interface":"eth5"})");
  EXPECT_TRUE(bridge.ask(client, R"({"cmd":"publish_sv_apdu","pduBase64":"QAAB/w=="})").empty());
  ASSERT_EQ(bridge.svPublisher->published.size(), 1U);
  const auto& [pdu, config] = bridge.svPublisher->published[0];
  EXPECT_EQ(pdu, (Bytes{0x40, 0x00, 0x01, 0xFF}));
  EXPECT_EQ(config.interface, "eth5");
  EXPECT_EQ(config.dstMac, (MacAddress{1, 0x0C, 0xCD, 4, 0, 1}));
}

}  // namespace
}  // namespace tarnlink::test
