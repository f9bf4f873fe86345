#include "protocol/bridge_event_encoder.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace tarnlink {
using namespace goosestack;
namespace {

using Encoder = BridgeEventEncoder;

TEST(BridgeEventEncoderTest, EventsHaveExactlyTheirMembers) {
  const std::string version = "\"" + std::string(Encoder::appVersion()) + "\"";
  EXPECT_EQ(Encoder::authResult(true),
            R"({"event":"auth_result","ok":true,"version":)" + version + R"(,"protocol":2})");
  EXPECT_EQ(Encoder::marked(Encoder::error("s\u00e4nd \u2014 \"it\"", -1), "\n"),
            R"({"event":"error","error":"sänd — \"it\"","code":-1,"requestId":"\n"})");
  EXPECT_EQ(Encoder::pong(-5, timeFromUnixSeconds(1715933730.1259)),
            R"({"event":"pong","originalTimestamp":-5,"responseTimestamp":1715933730125})");
  EXPECT_EQ(Encoder::interfaces({{"en0", "LAN", true, "02:00:00:00:00:01", false}, {}}, "en0"),
            R"({"event":"interfaces","interfaces":[{"name":"en0","displayName":"LAN","isUp":true,)"
            R"("macAddress":"02:00:00:00:00:01","supportsMulticast":false},{"name":"",)"
            R"("displayName":"","isUp":false,"macAddress":"","supportsMulticast":false}],)"
            R"("activeInterface":"en0"})");
  EXPECT_EQ(Encoder::bridgeStatus({true, "eth0", 9007199254740993, 2}),
            R"({"event":"bridge_status","isCapturing":true,"activeInterface":"eth0",)"
            R"("messagesReceived":9007199254740993,"messagesPublished":2,"bridgeVersion":)" +
                version + "}");
}

TEST(BridgeEventEncoderTest, SvFrameTellsMissingTagFromVlanZero) {
  SvCapturedFrame frame{{0x40, 0, 0xFF},
                        "01:0C:CD:04:00:01",
                        "02:00:00:00:00:01",
                        {},
                        timeFromUnixSeconds(1715933730.125)};
  const std::string head = R"({"event":"sv_apdu","pduBase64":"QAD/",)"
                           R"("receivedAt":"2024-05-17T08:15:30.125Z","vlanId":)";
  const std::string tail = R"(,"dstMac":"01:0C:CD:04:00:01","srcMac":"02:00:00:00:00:01"})";
  EXPECT_EQ(Encoder::svApdu(frame), head + "null" + tail);
  frame.vlanId = 0;
  EXPECT_EQ(Encoder::svApdu(frame), head + "0" + tail);
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
  const std::string common =
      R"({"event":"goose_message","message":{"appId":4096,"goCBRef":"IED1/LLN0$GO$gcb",)"
      R"("dataSet":"IED1/LLN0$ds","timestamp":"2024-05-17T08:15:30.125Z","stNum":4294967295,)"
      R"("sqNum":0,"test":false,"needsCommission":true,"confRev":3,"timeAllowedToLive":2000,)"
      R"("values":[{"runtimeType":"boolean","value":true},{"runtimeType":"int32","value":-1}],)"
      R"("receivedAt":"2024-05-17T08:15:31.000Z")";
  GooseMessage source = message();
  EXPECT_EQ(gooseText(source), common + "}}");
  source.vlanId = 0;
  source.srcMac = "02:00:00:00:00:01";
  source.dstMac = "01:0C:CD:01:00:01";
  EXPECT_EQ(gooseText(source),
            common + R"(,"vlanId":0,"srcMac":"02:00:00:00:00:01","dstMac":"01:0C:CD:01:00:01"}})");
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
