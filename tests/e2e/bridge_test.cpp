// The real daemon on a veth pair, real WebSocket clients, real frames.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "protocol/bridge_time.h"
#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

TEST_F(BridgeEndToEndTest, GooseFromTheWireReachesTheClientDecoded) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_goose"}, {"goCBRefFilter", "gcb01"}});
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true);

  FrameRecorder recorder(kBus, "vlan 100");
  send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x88, 0xB8, 0xFF});
  send(gooseFrame(9, 100,
                  {GooseDataValue::boolean(true), GooseDataValue::integer(-129),
                   GooseDataValue::floatingPoint(0.5F), GooseDataValue::bitString({true, false})}));
  Json message = client.next("goose_message")["message"];
  const auto receivedAt = parseBridgeIso8601(message["receivedAt"].get<std::string>());
  message.erase("receivedAt");
  const std::chrono::duration<double> stamped = recorder.frames(1).at(0).time;
  EXPECT_NEAR(unixSeconds(receivedAt.value()), stamped.count(), 0.001) << "the kernel's stamp";
  const Json expected = {
      {"appId", 4096},
      {"goCBRef", "IED1CTRL/LLN0$GO$gcb01"},
      {"dataSet", "IED1CTRL/LLN0$ds"},
      {"timestamp", "2024-05-17T08:15:30.125Z"},
      {"stNum", 3},
      {"sqNum", 9},
      {"test", false},
      {"needsCommission", false},
      {"confRev", 7},
      {"timeAllowedToLive", 2000},
      {"values",
       {{{"runtimeType", "boolean"}, {"value", true}},
        {{"runtimeType", "int32"}, {"value", -129}},
        {{"runtimeType", "float32"}, {"value", 0.5}},
        {{"runtimeType", "bitString"}, {"bits", {true, false}}}}},
      {"srcMac", "02:00:00:00:00:09"},
      {"dstMac", "01:0C:CD:01:00:01"},
      {"vlanId", 100},
  };
  EXPECT_EQ(message, expected);
}

TEST_F(BridgeEndToEndTest, StandardCaptureDeliversWithinItsReadTimeout) {
  startDaemon({"--interface", "bus0"});
  Client client(code, "::1");
  client.say({{"cmd", "subscribe_goose"}});
  ASSERT_EQ(client.next("bridge_status")["isCapturing"], true);
  const auto begin = std::chrono::steady_clock::now();
  for (std::uint32_t i = 0; i < 200; ++i) send(gooseFrame(i, 0));
  for (std::uint32_t i = 0; i < 200; ++i) {
    ASSERT_EQ(client.next("goose_message")["message"]["sqNum"], i);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}

TEST_F(BridgeEndToEndTest, NoCodeThatAClientSendsIsEverInTheLog) {
  startDaemon();
  const std::string wrong = code == "135790" ? "135791" : "135790";
  Client client(code);
  Client guesser("");
  for (const Json& token : {Json(wrong), Json(std::stoi(wrong)), Json(code + "x"), Json()}) {
    guesser.say({{"cmd", "auth"}, {"token", token}});
    EXPECT_EQ(guesser.next("auth_result")["ok"], false);
  }
  guesser.sayText("{\"cmd\":\"auth\",\"token\":\"" + code);
  EXPECT_EQ(guesser.next("error")["code"], -1);
  guesser.say({{"cmd", "subscribe_goose"}, {"token", code}});
  EXPECT_EQ(guesser.next("error")["code"], 7);
  client.say({{"cmd", "subscribe_goose"}, {"token", code}});
  client.next("bridge_status");
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->waitForExit(2s), 0);
  EXPECT_GT(daemon->log().size(), 5U);
  for (const auto& line : daemon->log()) {
    EXPECT_EQ(line.find(code), std::string::npos) << line;
    EXPECT_EQ(line.find(wrong), std::string::npos) << line;
  }
}

TEST_F(BridgeEndToEndTest, SigtermStopsInOrderWhileClientsListen) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_goose"}});
  client.say(publication("A", {{"retransmissionProfile", "fast"}}));
  client.next("bridge_status");
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->waitForExit(2s), 0);
  EXPECT_EQ(daemon->log().back(), "[BridgeServer] Stopped");
  EXPECT_FALSE(BridgeClient::connect({"127.0.0.1"}, 8765));
}

}  // namespace
}  // namespace tarnlink::test
