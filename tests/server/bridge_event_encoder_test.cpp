#include "server/bridge_event_encoder.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "server/json_value.h"

namespace tarnlink {
namespace {

using Encoder = BridgeEventEncoder;

// The members of one object, by name, as compact text: the order is free.
void expectMembers(const std::string& text, const std::vector<std::string>& members) {
  ASSERT_TRUE(parseJsonObject(text)) << text;
  std::size_t length = 1 + members.size();
  for (const std::string& member : members) {
    EXPECT_NE(text.find(member), std::string::npos) << member << " in " << text;
    length += member.size();
  }
  EXPECT_EQ(text.size(), length) << text;
}

TEST(BridgeEventEncoderTest, EventsHaveExactlyTheirMembers) {
  const std::string version = "\"" + std::string(Encoder::appVersion()) + "\"";
  for (const bool ok : {true, false}) {
    expectMembers(Encoder::authResult(ok),
                  {R"("event":"auth_result")", ok ? R"("ok":true)" : R"("ok":false)",
                   R"("version":)" + version, R"("protocol":2)"});
  }
  expectMembers(Encoder::error("Not authenticated \u2014 \"s\u00e4nd\"", 7),
                {R"("event":"error")", "\"error\":\"Not authenticated \u2014 \\\"s\u00e4nd\\\"\"",
                 R"("code":7)"});
  expectMembers(
      Encoder::pong(-5, timeFromUnixSeconds(1715933730.1259)),
      {R"("event":"pong")", R"("originalTimestamp":-5)", R"("responseTimestamp":1715933730125)"});
  expectMembers(Encoder::interfaces({}, ""),
                {R"("event":"interfaces")", R"("interfaces":[])", R"("activeInterface":"")"});
  expectMembers(
      Encoder::interfaces({{"en0", "Ethernet", true, "02:00:00:00:00:01", false}, {}}, "en0"),
      {R"("event":"interfaces")",
       R"("interfaces":[{"name":"en0","displayName":"Ethernet","isUp":true,)"
       R"("macAddress":"02:00:00:00:00:01","supportsMulticast":false},)"
       R"({"name":"","displayName":"","isUp":false,"macAddress":"","supportsMulticast":false}])",
       R"("activeInterface":"en0")"});
  expectMembers(Encoder::bridgeStatus({true, "eth0", 9007199254740993, 2}),
                {R"("event":"bridge_status")", R"("isCapturing":true)",
                 R"("activeInterface":"eth0")", R"("messagesReceived":9007199254740993)",
                 R"("messagesPublished":2)", R"("bridgeVersion":)" + version});
}

TEST(BridgeEventEncoderTest, SvFrameTellsMissingTagFromVlanZero) {
  SvCapturedFrame frame{{0x40, 0, 0xFF},
                        "01:0C:CD:04:00:01",
                        "02:00:00:00:00:01",
                        {},
                        timeFromUnixSeconds(1715933730.125)};
  std::vector<std::string> members{R"("event":"sv_apdu")",
                                   R"("pduBase64":"QAD/")",
                                   R"("dstMac":"01:0C:CD:04:00:01")",
                                   R"("srcMac":"02:00:00:00:00:01")",
                                   R"("receivedAt":"2024-05-17T08:15:30.125Z")",
                                   R"("vlanId":null)"};
  expectMembers(Encoder::svApdu(frame), members);
  frame.vlanId = 0;
  members.back() = R"("vlanId":0)";
  expectMembers(Encoder::svApdu(frame), members);
}

GooseMessage message() {
  GooseMessage result;
  result.appId = 0x1000;
  result.goCBRef = "IED1/LLN0$GO$gcb";
  result.dataSet = "IED1/LLN0$ds";
  result.goId = "not written";
  result.timestamp = timeFromUnixSeconds(1715933730.125);
  result.stNum = 4294967295U;
  result.needsCommission = true;
  result.confRev = 3;
  result.timeAllowedToLive = 2000;
  result.numEntries = 99;
  result.values = {GooseDataValue::boolean(true), GooseDataValue::integer(-1)};
  result.receivedAt = timeFromUnixSeconds(1715933731);
  return result;
}

std::string gooseText(const GooseMessage& source) {
  JsonWriter out(10, 1);
  Encoder::gooseMessage(source, out);
  const auto storage = out.release();
  return std::string(storage.octets.get() + 10, storage.textLength);
}

TEST(BridgeEventEncoderTest, GooseMessageHasOptionalMembersOnlyWhereTheMessageHasThem) {
  const std::string head = R"({"event":"goose_message","message":)";
  std::vector<std::string> members{
      R"("appId":4096)",
      R"("goCBRef":"IED1/LLN0$GO$gcb")",
      R"("dataSet":"IED1/LLN0$ds")",
      R"("timestamp":"2024-05-17T08:15:30.125Z")",
      R"("stNum":4294967295)",
      R"("sqNum":0)",
      R"("test":false)",
      R"("needsCommission":true)",
      R"("confRev":3)",
      R"("timeAllowedToLive":2000)",
      R"("values":[{"runtimeType":"boolean","value":true},{"runtimeType":"int32","value":-1}])",
      R"("receivedAt":"2024-05-17T08:15:31.000Z")"};
  GooseMessage source = message();
  std::string text = gooseText(source);
  ASSERT_TRUE(text.starts_with(head) && text.ends_with("}}"));
  expectMembers(text.substr(head.size(), text.size() - head.size() - 1), members);

  source.vlanId = 0;
  source.srcMac = "02:00:00:00:00:01";
  source.dstMac = "01:0C:CD:01:00:01";
  members.insert(members.end(), {R"("vlanId":0)", R"("srcMac":"02:00:00:00:00:01")",
                                 R"("dstMac":"01:0C:CD:01:00:01")"});
  text = gooseText(source);
  ASSERT_TRUE(text.starts_with(head) && text.ends_with("}}"));
  expectMembers(text.substr(head.size(), text.size() - head.size() - 1), members);
}

TEST(BridgeEventEncoderTest, EventThatJsonCannotCarryBecomesTheFixedText) {
  const std::string fallback = R"({"event":"error","error":"JSON encode failed","code":-1})";
  EXPECT_EQ(Encoder::error("\xFF", 1), fallback);
  EXPECT_EQ(Encoder::interfaces({{"\xC3", "", true, "", true}}, ""), fallback);
  EXPECT_EQ(Encoder::svApdu({{}, "\x80", "", {}, {}}), fallback);
  for (const auto& value : {GooseDataValue::floatingPoint(std::numeric_limits<float>::quiet_NaN()),
                            GooseDataValue::realDouble(std::numeric_limits<double>::infinity()),
                            GooseDataValue::visibleString("\xED\xA0\x80")}) {
    GooseMessage source = message();
    source.values.push_back(GooseDataValue::structure({value}));
    EXPECT_EQ(gooseText(source), fallback);
  }
}

}  // namespace
}  // namespace tarnlink
