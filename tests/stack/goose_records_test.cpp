#include <gtest/gtest.h>

#include <tuple>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_message.h"
#include "stack/goose_frame_decoder.h"
#include "stack/sv_frame_decoder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

TEST(GooseMessage, StaleOnlyWhenOlderThanAllowed) {
  const auto isStale = [](double age, std::uint32_t timeAllowedToLive) {
    GooseMessage message;
    message.receivedAt = timeFromUnixSeconds(1000);
    message.timeAllowedToLive = timeAllowedToLive;
    return message.isStale(timeFromUnixSeconds(1000 + age));
  };
  EXPECT_FALSE(isStale(1.5, 1500));
  EXPECT_TRUE(isStale(1.5, 1499));
  EXPECT_FALSE(isStale(-1000, 0));
  EXPECT_TRUE(isStale(1e10, ~0U));
}

/// Each of its fields has a value of its own.
GooseMessage distinctMessage() {
  GooseMessage message;
  message.appId = 0xFFFF;
  message.goCBRef = "ref";
  message.dataSet = "set";
  message.goId = "id";
  message.timestamp = timeFromUnixSeconds(10.5);
  message.stNum = 4294967295;
  message.sqNum = 2;
  message.simulation = true;
  message.confRev = 3;
  message.timeAllowedToLive = 4;
  message.numEntries = 1;
  message.values = {Value::boolean(true)};
  message.receivedAt = timeFromUnixSeconds(11.5);
  return message;
}

TEST(GooseMessage, MapHasNoKeysForWhatIsAbsent) {
  GooseMessage message = distinctMessage();
  EXPECT_EQ(message.toFlutterDict().size(), 14U);
  message.srcMac = "02:AA";
  message.dstMac = "01:0C";
  message.vlanId = 0;
  const FlutterDict dict = message.toFlutterDict();
  EXPECT_EQ(dict.size(), 17U);
  EXPECT_EQ(dict.at("stNum"), FlutterValue{std::int64_t{4294967295}});
  EXPECT_EQ(dict.at("timestamp"), FlutterValue{10.5});
  EXPECT_EQ(dict.at("vlanId"), FlutterValue{std::int64_t{0}});
  EXPECT_EQ(dict.at("values"), (FlutterValue{FlutterList{{message.values[0].toFlutterDict()}}}));
}

TEST(GooseDataValue, MapNamesTypeAndPayload) {
  const FlutterValue octets{FlutterList{{std::int64_t{0}}, {std::int64_t{255}}}};
  const FlutterValue member{
      FlutterDict{{"type", {std::string("int32")}}, {"value", {std::int64_t{-1}}}}};
  const std::vector integers{Value::integer(-1)};
  const std::tuple<Value, const char*, FlutterValue> cases[] = {
      {Value::boolean(true), "boolean", {true}},
      {Value::bitString({true, false}), "bitString", {FlutterList{{true}, {false}}}},
      {Value::unsignedInteger(~0U), "uint32", {std::int64_t{4294967295}}},
      {Value::floatingPoint(1.5F), "float32", {1.5}},
      {Value::realDouble(2.5), "float64", {2.5}},
      {Value::octetString({0, 255}), "octetString", octets},
      {Value::visibleString("x"), "visibleString", {std::string("x")}},
      {Value::utcTime(timeFromUnixSeconds(1.25)), "utcTime", {1.25}},
      {Value::structure(integers), "structure", {FlutterList{member}}},
      {Value::array(integers), "array", {FlutterList{member}}},
      {Value::unknown(0x8C, {0, 255}), "octetString", octets},
  };
  for (const auto& [value, type, payload] : cases) {
    const FlutterDict expected{{"type", {std::string(type)}}, {"value", payload}};
    EXPECT_EQ(value.toFlutterDict(), expected) << type;
  }
}

TEST(GooseMessage, FootprintCountsAllStorageHoweverDeep) {
  constexpr std::size_t kSize = 10'000;  // Octets.
  const Bytes octets(kSize);
  std::vector<GooseMessage> messages(2);
  messages[0].goCBRef = messages[0].dataSet = messages[0].goId = std::string(kSize / 3 + 1, 'x');
  messages[1].values.reserve(kSize / sizeof(Value) + 1);  // What waits for reuse counts.
  for (const Value& value :
       {Value::bitString(BitString(8 * kSize, true)), Value::octetString(octets),
        Value::visibleString(std::string(kSize, 'x')), Value::unknown(0x88, octets),
        Value::array(std::vector<Value>(kSize / sizeof(Value) + 1))}) {
    messages.emplace_back().values = {Value::structure({Value::array({value})})};
  }
  for (const auto& message : messages) {
    SCOPED_TRACE(&message - messages.data());
    EXPECT_GE(message.footprint(), sizeof message + kSize);
    EXPECT_LT(message.footprint(), sizeof message + kSize + 500);
  }
}

TEST(FrameDecoders, OverwriteRecycledRecords) {
  const MacAddress source{2, 0, 0, 0, 0, 10};
  const MacAddress destination{0x01, 0x0C, 0xCD, 1, 0, 0};
  GooseMessage expected = distinctMessage();
  expected.srcMac = "02:00:00:00:00:0A";
  expected.dstMac = "01:0C:CD:01:00:00";
  const GoosePdu pdu{{expected.appId},
                     expected.goCBRef,
                     expected.timeAllowedToLive,
                     expected.dataSet,
                     expected.goId,
                     expected.timestamp,
                     expected.stNum,
                     expected.sqNum,
                     expected.simulation,
                     expected.confRev,
                     expected.needsCommission,
                     0,
                     expected.values};
  GooseMessage message;
  message.goCBRef = "stale";
  message.values.resize(8);
  message.vlanId = 5;
  message.needsCommission = true;
  const Bytes frame = EthernetFrame::build(destination, source, 0, 0, *GoosePdu::encode(pdu));
  ASSERT_TRUE(GooseFrameDecoder().decode(frame, expected.receivedAt, message));
  EXPECT_EQ(message, expected);

  SvCapturedFrame record{Bytes(99), "old", "old", 7, timeNow()};
  const Bytes samples = EthernetFrame::build(destination, source, 0, 0, frame, kEtherTypeSv);
  ASSERT_TRUE(SvFrameDecoder::decode(samples, expected.receivedAt, record));
  EXPECT_EQ(record, (SvCapturedFrame{frame, *expected.dstMac, *expected.srcMac, std::nullopt,
                                     expected.receivedAt}));
  EXPECT_FALSE(SvFrameDecoder::decode(frame, {}, record));
  EXPECT_FALSE(GooseFrameDecoder().decode(samples, {}, message));
}

}  // namespace
}  // namespace tarnlink::test
