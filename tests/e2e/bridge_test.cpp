// The real daemon on a veth pair, real WebSocket clients, real frames.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "server/base64.h"
#include "stack/sv_frame.h"
#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
namespace {

std::string encodeBase64(ByteView octets) {
  std::string text(base64Length(octets.size()), '\0');
  writeBase64(octets, text.data());
  return text;
}

TEST_F(BridgeEndToEndTest, GooseFromTheWireReachesTheClientDecoded) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_goose"}, {"goCBRefFilter", "gcb01"}});
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true);

  send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x88, 0xB8, 0xFF});
  send(gooseFrame(9, 100,
                  {GooseDataValue::boolean(true), GooseDataValue::integer(-129),
                   GooseDataValue::floatingPoint(0.5F), GooseDataValue::bitString({true, false})}));
  const Json message = client.next("goose_message")["message"];
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
      {"receivedAt", message["receivedAt"]},
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
  for (std::uint32_t i = 0; i < 200; ++i) send(gooseFrame(i, 0));
  for (std::uint32_t i = 0; i < 200; ++i) {
    ASSERT_EQ(client.next("goose_message")["message"]["sqNum"], i);
  }
}

TEST_F(BridgeEndToEndTest, APublicationIsReplacedByTheNextWhoeverSendsIt) {
  startDaemon();
  FrameRecorder recorder(kIed, "ether proto 0x88b8");
  Client first(code);
  Client second(code);
  first.say(publication("A/LLN0$GO$one", {{"retransmissionProfile", "fast"}}));
  EXPECT_EQ(first.next("bridge_status")["messagesPublished"], 1);
  recorder.frames(4);
  second.say(publication("A/LLN0$GO$two", {{"retransmissionProfile", "single"}}));
  EXPECT_EQ(second.next("bridge_status")["messagesPublished"], 2);

  const auto frames = recorder.frames(1000, 700ms);
  std::uint32_t sqNum = 0;
  int ofSecond = 0;
  for (const auto& frame : frames) {
    const auto envelope = EthernetFrame::parse(frame.octets);
    ASSERT_TRUE(envelope);
    const auto pdu = GoosePdu::parse(envelope->payload);
    ASSERT_TRUE(pdu);
    if (pdu->goCBRef == "A/LLN0$GO$two") {
      EXPECT_EQ(pdu->stNum, 2U);
      EXPECT_EQ(pdu->sqNum, 0U);
      ++ofSecond;
    } else {
      EXPECT_EQ(ofSecond, 0) << "a frame of the replaced publication came after the new one";
      EXPECT_EQ(pdu->stNum, 1U);
      EXPECT_EQ(pdu->sqNum, sqNum++);
    }
  }
  EXPECT_GE(sqNum, 4U);
  EXPECT_EQ(ofSecond, 1) << "profile single sends once";
}

TEST_F(BridgeEndToEndTest, RefusedRequestsSayWhyAndStartNothing) {
  startDaemon();
  Client client(code);
  const struct {
    Json command;
    int code;
    const char* text;
  } cases[] = {
      {publication("A", {{"interface", "no-name"}}), 6, "Invalid interface name"},
      {publication("A", {{"interface", "nosuch0"}}), 2, "Publish failed: "},
      {publication("A", {{"vlanId", 100}}), 3, "VLAN-Setup fehlgeschlagen: "},
      {{{"cmd", "publish_sv_apdu"}, {"pduBase64", "QAA="}, {"interface", "nosuch0"}},
       5,
       "SV publish failed: "},
      {publication("A",
                   {{"values", {{{"type", "octetString"}, {"bytes", Json::array_t(1500, 0)}}}}}),
       2, "Publish failed: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command.dump().substr(0, 200));
    client.say(c.command);
    const Json error = client.next("error");
    EXPECT_EQ(error["code"], c.code);
    EXPECT_EQ(error["error"].get<std::string>().rfind(c.text, 0), 0U) << error["error"];
  }
  client.say({{"cmd", "unpublish_goose"}});
  EXPECT_EQ(client.next("bridge_status")["messagesPublished"], 0);
}

TEST_F(BridgeEndToEndTest, SvPayloadsMakeTheRoundTrip) {
  startDaemon();
  const Bytes payload{0x40, 0x00, 0x00, 0x0A, 0, 0, 0, 0, 0x60, 0x00};
  FrameRecorder recorder(kIed, "ether proto 0x88ba or (vlan and ether proto 0x88ba)");
  Client client(code);
  client.say({{"cmd", "subscribe_sv"}, {"appIdFilter", 0x4000}});
  client.say({{"cmd", "publish_sv_apdu"},
              {"pduBase64", encodeBase64(payload)},
              {"interface", "bus0"},
              {"vlanId", 5}});
  const auto& sent = recorder.frames(1);
  ASSERT_EQ(sent.size(), 1U);
  const auto parsed = parseSvFrame(sent[0].octets);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->vlanId, 5);
  EXPECT_EQ(Bytes(parsed->pdu.begin(), parsed->pdu.end()), payload);

  Bytes back = sent[0].octets;
  back[5] = 0x77;
  send(back);
  Json event = client.next("sv_apdu");
  if (event["dstMac"] == "01:0C:CD:04:00:01") event = client.next("sv_apdu");  // Our own, captured.
  EXPECT_EQ(event["dstMac"], "01:0C:CD:04:00:77");
  EXPECT_EQ(event["pduBase64"], encodeBase64(payload));
  EXPECT_EQ(event["vlanId"], 5);
}

TEST_F(BridgeEndToEndTest, NothingAClientSendsStopsTheBridge) {
  startDaemon();
  Client client("");
  for (const char* text : {"", "{", "[]", "nul", "{\"cmd\":7}", "{\"cmd\":\"subscribe_goose\"}",
                           "{\"cmd\":\"ping\",\"timestamp\":1e400}"}) {
    client.socket().sendText(text).value();
    EXPECT_TRUE(client.socket().receive()) << text;
  }
  client.say({{"cmd", "ping"}, {"timestamp", 3}});
  EXPECT_EQ(client.next("pong")["originalTimestamp"], 3);
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
  guesser.socket().sendText("{\"cmd\":\"auth\",\"token\":\"" + code).value();
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
  EXPECT_FALSE(WebSocketClient::connect("127.0.0.1", 8765));
}

}  // namespace
}  // namespace tarnlink::test
