// tarnlinkctl against a bridge that answers as each case has it, and the lines that people read.
#include <gmock/gmock.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/network_namespace.h"
#include "tests/tools/ctl_line.h"
#include "tools/common/printing.h"
#include "tools/tarnlinkctl/arrival_probe.h"
#include "tools/tarnlinkctl/commands.h"
#include "websocket/websocket.h"

namespace tarnlink {
namespace {

namespace asio = boost::asio;
using ::testing::HasSubstr;
using Json = nlohmann::json;

/// What the bridge sends when it gets each command, "strictly" where that was asked for; the text
/// ID in it is the command's requestId.
using Script = std::map<std::string, std::vector<std::string>>;

/// One client at a time, on loopback.
class ScriptedBridge {
 public:
  explicit ScriptedBridge(Script script) : script_(std::move(script)) {
    WebSocketAccess access;
    access.addresses = {asio::ip::address_v4::loopback()};
    transport_ = makeWebSocketTransport(context_.get_executor(), {}, access);
    listener_ = transport_->makeListener(8765).value();
    std::promise<void> ready;
    listener_->start(
        [&ready](const TransportState& state) {
          if (std::holds_alternative<TransportReady>(state)) ready.set_value();
        },
        [this](auto connection) { accept(std::move(connection)); });
    thread_ = std::thread([this] { context_.run(); });
    ready.get_future().wait();
  }
  ~ScriptedBridge() {
    asio::post(context_, [this] {
      listener_->cancel();
      if (connection_) connection_->cancel();
    });
    thread_.join();
  }

 private:
  void accept(std::shared_ptr<WebSocketConnection> connection) {
    connection_ = std::move(connection);
    connection_->start(
        [this](const TransportState& state) {
          if (!std::holds_alternative<TransportReady>(state)) return;
          asio::co_spawn(context_, answer(connection_), asio::detached);
        },
        [](const auto&) {});
  }
  asio::awaitable<void> answer(std::shared_ptr<WebSocketConnection> connection) {
    while (true) {
      const auto message = co_await connection->receive();
      if (!message) co_return;
      const auto command = Json::parse(message->data);
      const std::string strictly = command.value("strict", false) ? " strictly" : "";
      for (std::string text : script_[command.value("cmd", "") + strictly]) {
        if (const auto at = text.find("ID"); at != text.npos) {
          text.replace(at, 2, command["requestId"].dump());
        }
        connection->send(TextFrame::copyOf(text));
      }
    }
  }

  Script script_;
  asio::io_context context_{1};
  std::unique_ptr<WebSocketTransport> transport_;
  std::shared_ptr<WebSocketListener> listener_;
  std::shared_ptr<WebSocketConnection> connection_;
  std::thread thread_;
};

// A bridge that gives requestIds back, and one that does not know them. Both tell first what
// another client's doings broadcast.
const std::string kAuth = R"({"event":"auth_result","ok":true,"version":"9","requestId":ID})";
const std::string kOldAuth = R"({"event":"auth_result","ok":true,"version":"9"})";
const std::string kBroadcast =
    R"({"event":"bridge_status","isCapturing":true,"activeInterface":"other0","messagesPublished":99})";
const std::string kStatus =
    R"({"event":"bridge_status","activeInterface":"bus0","messagesPublished":1,"requestId":ID})";
const std::string kOldStatus =
    R"({"event":"bridge_status","activeInterface":"bus0","messagesPublished":1})";
const std::string kError =
    R"({"event":"error","error":"Invalid JSON command","code":-1,"reason":"vlanId: below 4096","requestId":ID})";
const std::string kOldError = R"({"event":"error","error":"one\n\nt\u001bo\n","code":3})";
const std::string kPong = R"({"event":"pong","requestId":ID})";
const std::string kOldPong = R"({"event":"pong"})";
const std::string kDone = R"({"event":"done","requestId":ID})";
const std::string kInterfaces =
    R"({"event":"interfaces","interfaces":[{"name":"eth0"},{"name":"bus0"}],"requestId":ID})";
const std::string kGoose = R"({"event":"goose_message","message":{"goCBRef":"G1"}})";
const std::string kSv = R"({"event":"sv_apdu","pduBase64":"QAA="})";

struct Ended {
  CtlExit exit;
  std::string output, errors;
};

class TarnlinkctlTest : public ::testing::Test {
 protected:
  TarnlinkctlTest() { test::NetworkNamespace::enter(); }

  static CtlOptions options(const std::string& line) {
    return std::get<CtlOptions>(test::parseCtlLine(line + " --code 123456 --timeout 0.5"));
  }
  static Ended run(const std::string& line, bool isInterrupted = false) {
    std::ostringstream output;
    std::ostringstream errors;
    const std::atomic<bool> interrupted = isInterrupted;
    const auto exit = runCtl(options(line), output, errors, interrupted);
    return {exit, output.str(), errors.str()};
  }
};

TEST_F(TarnlinkctlTest, NothingButItsOwnAnswerEndsACommand) {
  const char* publish = "publish --gocb-ref A bool:true";
  const char* publishSv = "publish-sv 40 --count 3 --interval 1";
  const char* done = "publishing A (active interface: bus0, 1 published so far)\n";
  const auto paired = [](Script script) {
    script["auth"] = {kAuth};
    return script;
  };
  const auto older = [](Script script) {
    script["auth"] = {kOldAuth};
    return script;
  };
  const struct {
    Script script;
    const char* line;
    CtlExit exit;
    const char *output, *errors;
  } cases[] = {
      {paired({{"publish_goose strictly", {kBroadcast, kStatus}}}), publish, CtlExit::done, done,
       ""},
      {paired({{"publish_goose strictly", {kBroadcast, kError}}}), publish, CtlExit::refused, "",
       "the bridge answers: Invalid JSON command (code -1): vlanId: below 4096\n"},
      {older({{"publish_goose strictly", {kBroadcast, kOldStatus}}, {"ping", {kOldPong}}}), publish,
       CtlExit::done, done, ""},
      // In lines that steer no terminal.
      {older({{"publish_goose strictly", {kBroadcast, kOldError}}, {"ping", {kOldPong}}}), publish,
       CtlExit::refused, "", "tarnlinkctl: the bridge answers: one\n  t\\x1Bo (code 3)\n"},
      {older({{"publish_goose strictly", {kBroadcast}}}), publish, CtlExit::connection, "",
       "no answer from the bridge at 127.0.0.1:8765 within 0.5 s\n  It may be waiting"},
      // An error that answers nobody.
      {paired({{"publish_goose strictly", {kOldError, kStatus}}}), publish, CtlExit::done, done,
       ""},
      {paired({{"subscribe_goose", {kBroadcast, kStatus, kGoose, kGoose}}}),
       "subscribe goose --count 1", CtlExit::done, "G1 ", "subscribed on bus0\n"},
      {paired({{"subscribe_sv", {kError}}, {"ping", {kPong}}}), "subscribe sv --count 1",
       CtlExit::refused, "", "vlanId"},
      {paired({{"get_interfaces", {kInterfaces}}}), "set-interface nosuch", CtlExit::usage, "",
       "no interface 'nosuch'; there are:\n  eth0\n  bus0\n--force"},
      {paired({{"set_interface", {kBroadcast, kDone}}}), "set-interface nosuch --force",
       CtlExit::done, "active interface: nosuch\n", ""},
      // The answer to the frame before the last, and to the last one.
      {paired({{"publish_sv_apdu strictly", {kError}}, {"ping", {kPong}}}), publishSv,
       CtlExit::refused, "", "vlanId"},
      {paired({{"publish_sv_apdu strictly", {kDone}}, {"ping", {kError}}}), publishSv,
       CtlExit::refused, "", "vlanId"},
      {{{"auth", {R"({"event":"auth_result","ok":false})"}}},
       publish,
       CtlExit::authentication,
       "",
       "does not accept the pairing code\n  It may have a new one"},
      {paired({}), "publish --gocb-ref \xFF bool:true", CtlExit::usage, "", "not UTF-8"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.script));
    const ScriptedBridge bridge(c.script);
    const auto ended = run(c.line);
    EXPECT_EQ(ended.exit, c.exit) << ended.errors;
    EXPECT_THAT(ended.output, HasSubstr(c.output));
    EXPECT_THAT(ended.errors, HasSubstr(c.errors));
    EXPECT_EQ(ended.output.empty(), *c.output == '\0');
  }
}

TEST_F(TarnlinkctlTest, AnInterruptEndsWhatGoesOn) {
  for (const char* line :
       {"publish-sv 40 --count 1000000 --interval 1", "subscribe goose", "subscribe sv"}) {
    const ScriptedBridge bridge(
        {{"auth", {kAuth}}, {"subscribe_goose", {kStatus}}, {"ping", {kPong}}});
    const auto ended = run(line, true);
    EXPECT_EQ(ended.exit, CtlExit::done) << ended.errors;
    EXPECT_EQ(ended.output, *line == 'p' ? "sent 1 frame of 1 octets after the EtherType\n" : "");
  }
}

TEST_F(TarnlinkctlTest, WhatArrivesInsteadIsFound) {
  const struct {
    std::vector<std::string> goose, sv;
    MessageKind silent;
    bool isFiltered;
    const char* finding;
  } cases[] = {
      {{kStatus}, {}, MessageKind::goose, false, "nothing arrives on bus0, neither"},
      {{kStatus}, {kError}, MessageKind::sampledValues, true, "nothing arrives on bus0, neither"},
      {{kStatus}, {kSv, kSv}, MessageKind::goose, false, "only Sampled Values arrive on bus0"},
      {{kStatus}, {kSv, kSv}, MessageKind::goose, true, "only Sampled Values arrive on bus0"},
      {{kStatus, kGoose}, {}, MessageKind::sampledValues, false, "only GOOSE messages arrive"},
      {{kStatus, kGoose}, {kSv}, MessageKind::goose, true, "than --app-id and --gocb-ref let"},
      {{kStatus, kGoose}, {kSv}, MessageKind::sampledValues, true, "than --app-id lets through"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.finding);
    const ScriptedBridge bridge({{"subscribe_goose", c.goose}, {"subscribe_sv", c.sv}});
    auto session = BridgeSession::connect(options("ping"));
    ASSERT_TRUE(session);
    ArrivalProbe probe(std::move(*session), c.silent, c.isFiltered);
    for (int i = 0; i < 200 && probe.finding().find(c.finding) == std::string::npos; ++i) {
      ASSERT_TRUE(probe.look());
    }
    EXPECT_THAT(probe.finding(), HasSubstr(c.finding));
  }
}

TEST(TarnlinkctlPrinting, SampledValuesWithAndWithoutPayload) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"pduBase64":"QAAACAAAAABgAA==","dstMac":"D","srcMac":"S","vlanId":5,"receivedAt":"T"})",
       "T appId=16384 vlan=5 S to D 10 octets: 40000008000000006000"},
      {R"({"pduBase64":"QA==","dstMac":"D","srcMac":"S","vlanId":null,"receivedAt":"T"})",
       "T appId=? S to D 1 octets: 40"},
      {R"({"dstMac":"D","srcMac":"S","receivedAt":"T"})", "T appId=? S to D ?"},
  };
  for (const auto& [event, line] : cases) EXPECT_EQ(svLine(*parseJson(event)), line);
}

TEST(TarnlinkctlPrinting, ValuesAsPeopleReadThem) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"runtimeType":"boolean","value":true})", "true"},
      {R"({"runtimeType":"int32","value":-5})", "-5"},
      {R"({"runtimeType":"float32","value":1.2000000476837158})", "1.2"},
      {R"({"runtimeType":"float64","value":1.2000000476837158})", "1.2000000476837158"},
      {R"({"runtimeType":"bitString","bits":[false,true,true]})", "0b011"},
      {R"({"runtimeType":"octetString","bytes":[0,10,255]})", "0x000AFF"},
      {R"({"runtimeType":"utcTime","value":"2024-05-17T08:15:30.125Z"})",
       "2024-05-17T08:15:30.125Z"},
      {R"({"runtimeType":"visibleString","value":"clear \u001b[2J or \u009b2J, ä\u007f"})",
       R"("clear \x1B[2J or \xC2\x9B2J, ä\x7F")"},
      {R"({"runtimeType":"structure","elements":[{"runtimeType":"uint32","value":1},)"
       R"({"runtimeType":"array","elements":[{"runtimeType":"boolean","value":false}]}]})",
       "{1, [false]}"},
      {R"({"runtimeType":"boolean","value":"yes"})", "?"},
      {R"({})", "?"},
  };
  for (const auto& [json, text] : cases) EXPECT_EQ(valueText(*parseJson(json)), text) << json;
}

}  // namespace
}  // namespace tarnlink
