#include "server/json_value_codec.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "server/bridge_event_encoder.h"
#include "stack/goose_pdu.h"

namespace tarnlink {
namespace {

using Value = GooseDataValue;

std::string written(const Value& value) {
  JsonWriter out(0, 1);
  toBridgeJson(value, out);
  EXPECT_FALSE(out.failed());
  return std::string(out.text());
}

auto readValue(const std::string& text) {
  return fromBridgeJson<GooseDataValue>(parseJsonObject(text).value());
}

TEST(JsonValueCodecTest, MacTextsFollowOneRule) {
  constexpr MacAddress kAddress{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  for (const std::string text :
       {"01:0c:CD:01:00:01", "01-0C-CD-01-00-01", "01:0C-CD:01::00:01", ":-01:0C:CD:01:00:01--"}) {
    EXPECT_EQ(parseMacAddress(text), kAddress) << text;
  }
  for (const std::string text :
       {"", ":::::", "1:0C:CD:01:00:01", "01:0C:CD:01:00", "01:0C:CD:01:00:01:02",
        "01:0C:CD:01:00:0G", "01:0C:CD:01:00:001", "+1:0C:CD:01:00:01", "01 0C CD 01 00 01",
        "0x:0C:CD:01:00:01", "010CCD010001"}) {
    EXPECT_FALSE(parseMac(text)) << text;
  }
}

TEST(JsonValueCodecTest, ValuesAreWrittenAndReadBack) {
  const std::pair<Value, std::string> cases[] = {
      {Value::boolean(true), R"({"runtimeType":"boolean","value":true})"},
      {Value::bitString({}), R"({"runtimeType":"bitString","bits":[]})"},
      {Value::bitString({true, false}), R"({"runtimeType":"bitString","bits":[true,false]})"},
      {Value::integer(std::numeric_limits<std::int32_t>::min()),
       R"({"runtimeType":"int32","value":-2147483648})"},
      {Value::unsignedInteger(4294967295U), R"({"runtimeType":"uint32","value":4294967295})"},
      {Value::floatingPoint(0.1F), R"({"runtimeType":"float32","value":0.10000000149011612})"},
      {Value::realDouble(-0.0), R"({"runtimeType":"float64","value":-0})"},
      {Value::octetString({0, 127, 255}), R"({"runtimeType":"octetString","bytes":[0,127,255]})"},
      {Value::visibleString("a\"b"), R"({"runtimeType":"visibleString","value":"a\"b"})"},
      {Value::utcTime(timeFromUnixSeconds(1715933730.125)),
       R"({"runtimeType":"utcTime","value":"2024-05-17T08:15:30.125Z"})"},
      {Value::structure({Value::integer(1), Value::array({})}),
       R"({"runtimeType":"structure","elements":[{"runtimeType":"int32","value":1},)"
       R"({"runtimeType":"array","elements":[]}]})"}};
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(written(value), text);
    const auto back = readValue(text);
    ASSERT_TRUE(back) << text;
    EXPECT_EQ(*back, value) << text;
  }
  EXPECT_EQ(written(Value::unknown(0x8C, {7, 8})),
            R"({"runtimeType":"octetString","bytes":[7,8]})");
}

TEST(JsonValueCodecTest, FullOctetAndBitStringsFitTheRoomThatWasEnsured) {
  for (std::size_t length = 0; length < 300; length += 7) {
    const Value octets = Value::octetString(Bytes(length, 255));
    EXPECT_EQ(*readValue(written(octets)), octets);
    const Value bits = Value::bitString(Value::BitString(length, false));
    EXPECT_EQ(*readValue(written(bits)), bits);
  }
}

TEST(JsonValueCodecTest, DeepestDatasetFromTheWireReadsBackInsideItsEvent) {
  std::string octets;
  for (int i = 0; i < 60; ++i) octets.insert(0, {'\xA2', static_cast<char>(octets.size())});
  GooseMessage message;
  message.values = GoosePdu::parseDataValues(
      {reinterpret_cast<const std::uint8_t*>(octets.data()), octets.size()});
  ASSERT_EQ(message.values.size(), 1U);
  JsonWriter out;
  BridgeEventEncoder::gooseMessage(message, out);
  EXPECT_TRUE(parseJsonObject(out.text())) << out.text();
}

TEST(JsonValueCodecTest, ReadingFollowsNamesFallbacksAndDefaults) {
  const auto time = timeFromUnixSeconds(1715933730);
  const std::pair<std::string, Value> cases[] = {
      {R"({"runtimeType":"boolean"})", Value::boolean(false)},
      {R"({"runtimeType":"boolean","value":1})", Value::boolean(false)},
      {R"({"type":"uint16","value":7})", Value::unsignedInteger(7)},
      {R"({"runtimeType":5,"type":"uint8","value":300})", Value::unsignedInteger(300)},
      {R"({"runtimeType":"int32","type":"uint8","value":-1})", Value::integer(-1)},
      {R"({"type":"int64","value":1e2})", Value::integer(100)},
      {R"({"type":"int8","value":1.5})", Value::integer(0)},
      {R"({"type":"int16","value":"5"})", Value::integer(0)},
      {R"({"type":"uint32","value":true})", Value::unsignedInteger(0)},
      {R"({"type":"int32","value":123456789012345678901234567890})", Value::integer(0)},
      {R"({"type":"float32","value":3})", Value::floatingPoint(3)},
      {R"({"type":"float32","value":3.4028235e38})",
       Value::floatingPoint(std::numeric_limits<float>::max())},
      {R"({"type":"float64","value":1e400})", Value::realDouble(0)},
      {R"({"type":"float64","value":null})", Value::realDouble(0)},
      {R"({"type":"mmsString","value":"x"})", Value::visibleString("x")},
      {R"({"type":"visibleString","value":5})", Value::visibleString("")},
      {R"({"type":"octetString","value":[1,2,300]})", Value::octetString({1, 2, 44})},
      {R"({"type":"octetString","bytes":[-1,256],"value":[1]})", Value::octetString({255, 0})},
      {R"({"type":"octetString","bytes":[1.5],"value":[1]})", Value::octetString({1})},
      {R"({"type":"octetString","bytes":[1,"2"]})", Value::octetString({})},
      {R"({"type":"bitString","bits":[true,0],"value":[true]})", Value::bitString({true})},
      {R"({"type":"bitString","bits":"10"})", Value::bitString({})},
      {R"({"type":"utcTime","value":"2024-05-17T08:15:30Z"})", Value::utcTime(time)},
      {R"({"type":"utcTime","value":1715933730})", Value::utcTime(time)},
      {R"({"type":"utcTime","value":"yesterday"})", Value::utcTime(TimePoint{})},
      {R"({"type":"structure"})", Value::structure({})},
      {R"({"type":"structure","elements":[{"type":"boolean"},{"type":"uint64","value":-1},)"
       R"({"type":"int8","value":3}]})",
       Value::structure({Value::boolean(false), Value::integer(3)})},
      {R"({"type":"array","elements":[{"type":"boolean"},{"type":"boolean"},7]})",
       Value::array({})}};
  for (const auto& [text, value] : cases) {
    const auto read = readValue(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(*read, value) << text;
  }
  for (const std::string text : {R"({})", R"({"runtimeType":"uint64","value":7})",
                                 R"({"type":"Boolean"})", R"({"type":7})", R"({"value":true})"}) {
    EXPECT_EQ(readValue(text).error(), Unreadable::incomplete) << text;
  }
}

TEST(JsonValueCodecTest, NumberOutsideItsRangeSpoilsEverythingAroundIt) {
  for (const std::string value :
       {R"({"type":"int32","value":2147483648})", R"({"type":"int64","value":-2147483649})",
        R"({"type":"uint8","value":-1})", R"({"type":"uint32","value":4294967296})",
        R"({"type":"float32","value":3.4028236e38})", R"({"type":"float32","value":-1e300})"}) {
    EXPECT_EQ(readValue(value).error(), Unreadable::outOfRange) << value;
    const std::string deep = R"({"type":"array","elements":[{"type":"boolean"},)"
                             R"({"type":"structure","elements":[)" +
                             value + "]}]}";
    EXPECT_EQ(readValue(deep).error(), Unreadable::outOfRange) << value;
  }
}

// The four required members, then more.
auto readRequest(const std::string& more) {
  return fromBridgeJson<GoosePublishConfig>(
      parseJsonObject(R"({"appId":1,"goCBRef":"cb","dataSetRef":"ds","confRev":2)" + more + "}")
          .value());
}

TEST(JsonValueCodecTest, RequestWithRequiredMembersOnlyTakesTheDefaults) {
  // clang-format off
  const GoosePublishConfig expected{
      1, "cb", "ds", "cb", 2, 0, 4, false, false, {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01}, {},
      RetransmissionProfile::standard(), {}, "en0", 10000, false, false, 0, 0, false, false};
  // clang-format on
  for (const std::string more :
       {R"()", R"(,"goID":"","goId":7,"timeAllowedToLive":0,"retransmissionProfile":"FAST")",
        R"(,"dstMac":"nowhere","srcMac":"x","interface":7,"vlanId":"100","vlanPriority":1.5)",
        R"(,"values":[{"type":"boolean"},1],"test":1,"lockStNum":"true","stNum":1e30)",
        R"(,"values":{"type":"boolean"},"timeAllowedToLive":-5,"sqNum":null)"}) {
    const auto config = readRequest(more);
    ASSERT_TRUE(config) << more;
    EXPECT_EQ(*config, expected) << more;
  }
}

TEST(JsonValueCodecTest, FullRequestFillsEveryField) {
  const auto config = readRequest(
      R"(,"appId":65537,"vlanId":100,"vlanPriority":255,"vlanCfi":true,"goID":"","goId":"id",)"
      R"("interface":"eth1","retransmissionProfile":"fast","timeAllowedToLive":4294967295,)"
      R"("test":true,"needsCommission":true,"stNum":4294967295,"sqNum":3,"lockStNum":true,)"
      R"("lockSqNum":true,"dstMac":"01-0C-CD-01-01-FF","srcMac":"02:00:00:00:00:01",)"
      R"("values":[{"type":"int8","value":-3},{"type":"uint64"},{"type":"boolean","value":true}])");
  ASSERT_TRUE(config);
  // clang-format off
  const GoosePublishConfig expected{
      1, "cb", "ds", "id", 2, 100, 255, true, true, {0x01, 0x0C, 0xCD, 0x01, 0x01, 0xFF},
      MacAddress{0x02, 0, 0, 0, 0, 0x01}, RetransmissionProfile::fast(),
      {Value::integer(-3), Value::boolean(true)}, "eth1", 4294967295U, true, true, 4294967295U, 3,
      true, true};
  // clang-format on
  EXPECT_EQ(*config, expected);
  // Fields that the others would hide: each differs from its neighbour of the same type.
  const auto flags =
      readRequest(R"(,"vlanId":100,"vlanTagged":false,"test":true,"lockStNum":true)");
  EXPECT_FALSE(flags->vlanTagged || flags->vlanCfi || flags->ndsCom || flags->lockSqNum);
  EXPECT_TRUE(flags->simulation && flags->lockStNum);
  EXPECT_EQ(readRequest(R"(,"retransmissionProfile":"single")")->retransmissionProfile,
            RetransmissionProfile::single());
}

TEST(JsonValueCodecTest, RequestThatCannotBePublishedIsRefused) {
  for (const std::string more :
       {R"(,"appId":"1")", R"(,"goCBRef":null)", R"(,"dataSetRef":7)", R"(,"confRev":1.5)",
        R"(,"confRev":-1)", R"(,"confRev":4294967296)", R"(,"vlanId":65536)", R"(,"vlanId":-1)",
        R"(,"vlanPriority":256)", R"(,"stNum":-1)", R"(,"sqNum":4294967296)",
        R"(,"timeAllowedToLive":4294967296)",
        R"(,"values":[{"type":"structure","elements":[{"type":"int32","value":3e9}]}])"}) {
    EXPECT_FALSE(readRequest(more)) << more;
  }
  EXPECT_FALSE(fromBridgeJson<GoosePublishConfig>(JsonObject()));
}

}  // namespace
}  // namespace tarnlink
