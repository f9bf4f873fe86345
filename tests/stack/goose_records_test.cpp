#include <gtest/gtest.h>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_message.h"
#include "goosestack/network_interface_info.h"
#include "stack/goose_frame_decoder.h"
#include "stack/sv_frame_decoder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

TEST(GooseMessage, StaleOnlyWhenOlderThanAllowed) {
  const struct {
    double receivedAt;
    std::uint32_t timeAllowedToLive;
    bool isStale;
  } cases[] = {{1000, 1500, false}, {1000, 1499, true}, {2000, 0, false}, {-1e10, ~0U, true}};
  for (const auto& [receivedAt, timeAllowedToLive, isStale] : cases) {
    GooseMessage message;
    message.receivedAt = timeFromUnixSeconds(receivedAt);
    message.timeAllowedToLive = timeAllowedToLive;
    EXPECT_EQ(message.isStale(timeFromUnixSeconds(1001.5)), isStale) << receivedAt;
  }
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

/// Maps as {key:value ...}, with texts in quotes and six decimals of what is no whole number.
std::string textOf(const FlutterValue& any) {
  return std::visit(
      [](const auto& held) {
        using T = std::decay_t<decltype(held)>;
        std::string text;
        if constexpr (std::is_same_v<T, bool>) {
          text = held ? "true" : "false";
        } else if constexpr (std::is_same_v<T, std::string>) {
          text = "'" + held + "'";
        } else if constexpr (std::is_same_v<T, FlutterDict>) {
          for (const auto& [key, value] : held) text += " " + key + ":" + textOf(value);
          text = "{" + text + " }";
        } else if constexpr (std::is_same_v<T, FlutterList>) {
          for (const auto& value : held) text += " " + textOf(value);
          text = "[" + text + " ]";
        } else {
          text = std::to_string(held);
        }
        return text;
      },
      any.value);
}

TEST(Maps, HaveNoKeysForWhatIsAbsent) {
  GooseMessage message = distinctMessage();
  message.dstMac = "01:0C";
  const NetworkInterfaceInfo info{"eth0", "Ethernet", true, "02:00", false};
  const auto ofValue = [](const Value& value) { return textOf({value.toFlutterDict()}); };
  const Value members = Value::structure({Value::integer(-1), Value::array({})});
  const std::pair<std::string, const char*> cases[] = {
      {textOf({message.toFlutterDict()}),
       "{ appId:65535 confRev:3 dataSet:'set' dstMac:'01:0C' goCBRef:'ref' goId:'id'"
       " needsCommission:false numEntries:1 receivedAt:11.500000 simulation:true sqNum:2"
       " stNum:4294967295 timeAllowedToLive:4 timestamp:10.500000"
       " values:[ { type:'boolean' value:true } ] }"},
      {textOf({info.toFlutterDict()}),
       "{ displayName:'Ethernet' isUp:true macAddress:'02:00' name:'eth0'"
       " supportsMulticast:false }"},
      {ofValue(Value::bitString({true, false})), "{ type:'bitString' value:[ true false ] }"},
      {ofValue(Value::unsignedInteger(~0U)), "{ type:'uint32' value:4294967295 }"},
      {ofValue(Value::floatingPoint(1.5F)), "{ type:'float32' value:1.500000 }"},
      {ofValue(Value::realDouble(2.5)), "{ type:'float64' value:2.500000 }"},
      {ofValue(Value::octetString({0, 255})), "{ type:'octetString' value:[ 0 255 ] }"},
      {ofValue(Value::visibleString("x")), "{ type:'visibleString' value:'x' }"},
      {ofValue(Value::utcTime(timeFromUnixSeconds(1.25))), "{ type:'utcTime' value:1.250000 }"},
      {ofValue(members),
       "{ type:'structure' value:[ { type:'int32' value:-1 }"
       " { type:'array' value:[ ] } ] }"},
      {ofValue(Value::unknown(0x8C, {0, 255})), "{ type:'octetString' value:[ 0 255 ] }"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
  message.srcMac = "02:AA";
  message.vlanId = 0;
  EXPECT_EQ(message.toFlutterDict().at("srcMac"), FlutterValue{*message.srcMac});
  EXPECT_EQ(message.toFlutterDict().at("vlanId"), FlutterValue{std::int64_t{0}});
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
