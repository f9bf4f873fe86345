#include <gtest/gtest.h>

#include <limits>

#include "goosestack/goose_message.h"
#include "goosestack/network_interface_info.h"
#include "stack/goose_message_builder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

GooseMessage messageReceivedAt(double seconds, std::uint32_t timeAllowedToLive) {
  GooseMessage message;
  message.receivedAt = timeFromUnixSeconds(seconds);
  message.timeAllowedToLive = timeAllowedToLive;
  return message;
}

TEST(GooseMessage, StaleOnlyWhenOlderThanAllowed) {
  const TimePoint now = timeFromUnixSeconds(1001.5);
  EXPECT_FALSE(messageReceivedAt(1000.0, 2000).isStale(now));
  EXPECT_FALSE(messageReceivedAt(1000.0, 1500).isStale(now));
  EXPECT_TRUE(messageReceivedAt(1000.0, 1499).isStale(now));
  EXPECT_FALSE(messageReceivedAt(2000.0, 0).isStale(now));
  EXPECT_TRUE(messageReceivedAt(-1e10, std::numeric_limits<std::uint32_t>::max()).isStale(now));
}

TEST(GooseMessage, MapHasNoKeysForWhatIsAbsent) {
  GooseMessage message = messageReceivedAt(1000.5, 2000);
  message.appId = 0xFFFF;
  message.stNum = std::numeric_limits<std::uint32_t>::max();
  message.values = {GooseDataValue::boolean(true)};
  FlutterDict dict = message.toFlutterDict();
  EXPECT_EQ(dict.size(), 14U);
  EXPECT_FALSE(dict.contains("vlanId"));
  EXPECT_FALSE(dict.contains("srcMac"));
  EXPECT_EQ(dict.at("appId"), FlutterValue{std::int64_t{65535}});
  EXPECT_EQ(dict.at("stNum"), FlutterValue{std::int64_t{4294967295}});
  EXPECT_EQ(dict.at("receivedAt"), FlutterValue{1000.5});
  EXPECT_EQ(dict.at("simulation"), FlutterValue{false});
  const FlutterDict value{{"type", {std::string("boolean")}}, {"value", {true}}};
  EXPECT_EQ(dict.at("values"), FlutterValue{FlutterList{{value}}});

  message.vlanId = 0;
  message.srcMac = "02:AA:BB:CC:DD:EE";
  dict = message.toFlutterDict();
  EXPECT_EQ(dict.size(), 16U);
  EXPECT_EQ(dict.at("vlanId"), FlutterValue{std::int64_t{0}});
}

TEST(GooseDataValue, MapNamesTypeAndPayload) {
  using Value = GooseDataValue;
  const FlutterList octets{{std::int64_t{0}}, {std::int64_t{255}}};
  const FlutterDict member{{"type", {std::string("int32")}}, {"value", {std::int64_t{-1}}}};
  struct Case {
    Value value;
    std::string type;
    FlutterValue payload;
  };
  const Case cases[] = {
      {Value::bitString({true, false}), "bitString", {FlutterList{{true}, {false}}}},
      {Value::integer(-5), "int32", {std::int64_t{-5}}},
      {Value::unsignedInteger(4294967295), "uint32", {std::int64_t{4294967295}}},
      {Value::floatingPoint(1.5F), "float32", {1.5}},
      {Value::realDouble(2.5), "float64", {2.5}},
      {Value::octetString({0, 255}), "octetString", {octets}},
      {Value::visibleString("x"), "visibleString", {std::string("x")}},
      {Value::utcTime(timeFromUnixSeconds(1.25)), "utcTime", {1.25}},
      {Value::structure({Value::integer(-1)}), "structure", {FlutterList{{member}}}},
      {Value::array({Value::integer(-1)}), "array", {FlutterList{{member}}}},
      {Value::unknown(0x8C, {0, 255}), "octetString", {octets}},
  };
  for (const auto& [value, type, payload] : cases) {
    SCOPED_TRACE(type);
    const FlutterDict expected{{"type", {type}}, {"value", payload}};
    EXPECT_EQ(value.toFlutterDict(), expected);
  }
}

TEST(GooseMessage, FootprintCountsAllStorageHoweverDeep) {
  using Value = GooseDataValue;
  constexpr std::size_t kSize = 10'000;  // Octets.
  const Bytes octets(kSize);
  GooseMessage texts;
  texts.goCBRef = texts.dataSet = texts.goId = std::string(kSize / 3 + 1, 'x');
  std::vector messages{texts};
  for (const Value& value :
       {Value::bitString(BitString(8 * kSize, true)), Value::octetString(octets),
        Value::visibleString(std::string(kSize, 'x')), Value::unknown(0x88, octets),
        Value::array(std::vector<Value>(kSize / sizeof(Value) + 1))}) {
    GooseMessage message;
    message.values = {Value::boolean(true), Value::structure({Value::array({value})})};
    messages.push_back(message);
  }
  GooseMessage kept;  // What waits for reuse counts.
  kept.values.reserve(kSize / sizeof(Value) + 1);
  messages.push_back(std::move(kept));
  for (const auto& message : messages) {
    SCOPED_TRACE(&message - messages.data());
    EXPECT_GE(message.footprint(), sizeof message + kSize);
    EXPECT_LT(message.footprint(), sizeof message + kSize + 500);
  }
}

TEST(NetworkInterfaceInfo, MapHasAllFields) {
  const NetworkInterfaceInfo info{"eth0", "Ethernet", true, "02:00:00:00:00:01", false};
  const FlutterDict expected{{"name", {std::string("eth0")}},
                             {"displayName", {std::string("Ethernet")}},
                             {"isUp", {true}},
                             {"macAddress", {std::string("02:00:00:00:00:01")}},
                             {"supportsMulticast", {false}}};
  EXPECT_EQ(info.toFlutterDict(), expected);
}

TEST(GooseMessageBuilder, RecycledMessageKeepsNothingOfItsEarlierLife) {
  GoosePdu pdu;
  pdu.header.appId = 7;
  pdu.goCBRef = "ref";
  pdu.datSet = "set";
  pdu.goId = "id";
  pdu.timestamp = timeFromUnixSeconds(10);
  pdu.stNum = 1;
  pdu.sqNum = 2;
  pdu.simulation = true;
  pdu.confRev = 3;
  pdu.numDatSetEntries = 9;
  pdu.timeAllowedToLive = 4;
  pdu.allData = {GooseDataValue::integer(5)};
  ParsedEthernetFrame frame;
  frame.srcMac = {0x02, 0, 0, 0, 0, 0x0A};
  frame.dstMac = {0x01, 0x0C, 0xCD, 0x01, 0, 0};

  GooseMessage message;
  message.goCBRef = "stale";
  message.values.resize(8);
  message.vlanId = 5;
  message.needsCommission = true;
  buildGooseMessage(frame, pdu, timeFromUnixSeconds(11), message);

  GooseMessage expected;
  expected.appId = 7;
  expected.goCBRef = "ref";
  expected.dataSet = "set";
  expected.goId = "id";
  expected.timestamp = timeFromUnixSeconds(10);
  expected.stNum = 1;
  expected.sqNum = 2;
  expected.simulation = true;
  expected.confRev = 3;
  expected.timeAllowedToLive = 4;
  expected.numEntries = 9;
  expected.values = {GooseDataValue::integer(5)};
  expected.srcMac = "02:00:00:00:00:0A";
  expected.dstMac = "01:0C:CD:01:00:00";
  expected.receivedAt = timeFromUnixSeconds(11);
  EXPECT_EQ(message, expected);
}

}  // namespace
}  // namespace tarnlink::test
