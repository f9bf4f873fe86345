#include "protocol/from_bridge_json.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace tarnlink {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

auto readValue(const std::string& text) {
  return fromBridgeJson<GooseDataValue>(parseJson(text).value());
}

TEST(FromBridgeJsonTest, MacTextsFollowOneRule) {
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

TEST(FromBridgeJsonTest, ReadingFollowsNamesFallbacksAndDefaults) {
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
    EXPECT_EQ(readValue(text).error().which, Unreadable::Case::incomplete) << text;
  }
}

TEST(FromBridgeJsonTest, NumberOutsideItsRangeSpoilsEverythingAroundIt) {
  for (const std::string value :
       {R"({"type":"int32","value":2147483648})", R"({"type":"int64","value":-2147483649})",
        R"({"type":"uint8","value":-1})", R"({"type":"uint32","value":4294967296})",
        R"({"type":"float32","value":3.4028236e38})", R"({"type":"float32","value":-1e300})"}) {
    EXPECT_EQ(readValue(value).error().which, Unreadable::Case::refused) << value;
    const std::string deep = R"({"type":"array","elements":[{"type":"boolean"},)"
                             R"({"type":"structure","elements":[)" +
                             value + "]}]}";
    EXPECT_EQ(readValue(deep).error().which, Unreadable::Case::refused) << value;
  }
}

// The four required members, then more.
auto readRequest(const std::string& more) {
  return fromBridgeJson<GoosePublishConfig>(
      parseJson(R"({"appId":1,"goCBRef":"cb","dataSetRef":"ds","confRev":2)" + more + "}").value());
}

TEST(FromBridgeJsonTest, RequestWithRequiredMembersOnlyTakesTheDefaults) {
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

TEST(FromBridgeJsonTest, FullRequestFillsEveryField) {
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

TEST(FromBridgeJsonTest, RequestThatCannotBePublishedIsRefused) {
  for (const std::string more :
       {R"(,"appId":"1")", R"(,"goCBRef":null)", R"(,"dataSetRef":7)", R"(,"confRev":1.5)",
        R"(,"confRev":-1)", R"(,"confRev":4294967296)", R"(,"vlanId":65536)", R"(,"vlanId":-1)",
        R"(,"vlanPriority":256)", R"(,"stNum":-1)", R"(,"sqNum":4294967296)",
        R"(,"timeAllowedToLive":4294967296)",
        R"(,"values":[{"type":"structure","elements":[{"type":"int32","value":3e9}]}])"}) {
    EXPECT_FALSE(readRequest(more)) << more;
  }
  EXPECT_FALSE(fromBridgeJson<GoosePublishConfig>(Json::object()));
}

// Strict reading ------------------------------------------------------------------------------

auto readStrictly(const std::string& more) {
  return fromBridgeJson<GoosePublishConfig>(
      parseJson(R"({"cmd":"publish_goose","strict":true,"goCBRef":"cb","dataSetRef":"ds")" + more +
                "}")
          .value(),
      Reading::strict);
}

TEST(StrictReadingTest, WhatIsWrittenAsDocumentedIsRead) {
  for (const std::string more :
       {R"()", R"(,"goId":"id","requestId":7,"interface":"eth1","values":[])",
        R"(,"goID":"id","timeAllowedToLive":1,"retransmissionProfile":"standard","vlanId":4094,)"
        R"("vlanPriority":7,"vlanCfi":false,"vlanTagged":true,"test":true,"needsCommission":false,)"
        R"("stNum":4294967295,"sqNum":0,"lockStNum":true,"lockSqNum":true,)"
        R"("dstMac":"01-0C-CD-01-01-FF","srcMac":"02:00:00:00:00:01")",
        R"(,"values":[{"type":"boolean","value":false},{"type":"int8","value":-128},)"
        R"({"type":"int16","value":32767},{"type":"int64","value":-2147483648},)"
        R"({"type":"uint8","value":255},{"type":"uint16","value":1e2},)"
        R"({"type":"uint32","value":4294967295},{"type":"float32","value":3},)"
        R"({"type":"float64","value":-1e300},{"type":"mmsString","value":""},)"
        R"({"type":"octetString","bytes":[0,255]},{"type":"octetString","value":[1]},)"
        R"({"type":"bitString","bits":[]},{"type":"bitString","value":[true]},)"
        R"({"type":"utcTime","value":"2024-05-17T08:15:30Z"},{"type":"utcTime","value":0.5},)"
        R"({"type":"array","elements":[{"runtimeType":"structure","elements":[]}]}])"}) {
    const auto config = readStrictly(R"(,"appId":65535,"confRev":1)" + more);
    EXPECT_TRUE(config) << config.error().reason();
    EXPECT_EQ(*config, *readRequest(R"(,"appId":65535,"confRev":1)" + more));
  }
}

TEST(StrictReadingTest, WhatWouldBeMendedIsRefusedWithItsPlace) {
  const std::pair<std::string, std::string> cases[] = {
      {R"("confRev":1)", "appId: expected an integer from 0 to 65535, found nothing"},
      {R"("appId":65536,"confRev":1)", "appId: expected an integer from 0 to 65535, found 65536"},
      {R"("appId":1,"confRev":1.5)",
       "confRev: expected an integer from 0 to 4294967295, found 1.5"},
      {R"(%,"goID":"")", R"(goID: expected a GOOSE id, found "")"},
      {R"(%,"goID":"a","goId":"b")", "goId: no member of publish_goose"},
      {R"(%,"interface":null)", "interface: expected a string, found null"},
      {R"(%,"dstMac":"01:0C")",
       R"(dstMac: expected an address as 01:0C:CD:01:00:01, found "01:0C")"},
      {R"(%,"srcMac":7)", "srcMac: expected an address as 01:0C:CD:01:00:01, found 7"},
      {R"(%,"retransmissionProfile":"singel")",
       R"(retransmissionProfile: expected standard, fast or single, found "singel")"},
      {R"(%,"timeAllowedToLive":0)",
       "timeAllowedToLive: expected an integer from 1 to 4294967295, found 0"},
      {R"(%,"vlanId":4095)", "vlanId: expected an integer from 0 to 4094, found 4095"},
      {R"(%,"vlanPriority":8)", "vlanPriority: expected an integer from 0 to 7, found 8"},
      {R"(%,"test":1)", "test: expected true or false, found 1"},
      {R"(%,"stNum":"1")", R"(stNum: expected an integer from 0 to 4294967295, found "1")"},
      {R"(%,"confrev":1)", "confrev: no member of publish_goose"},
      {R"(%,"test":true,"test":false)", "test: expected once, found more than once"},
      {R"(%,"values":{})", "values: expected an array, found an object"},
      {R"(%,"values":[{"type":"boolean","value":true},7])",
       "values[1]: expected a dataset value, found 7"}};
  for (const auto& [more, reason] : cases) {
    const bool isWhole = more.front() != '%';
    const auto config =
        readStrictly(isWhole ? "," + more : R"(,"appId":1,"confRev":1)" + more.substr(1));
    ASSERT_FALSE(config) << more;
    EXPECT_EQ(config.error().reason(), reason);
  }
}

TEST(StrictReadingTest, ADatasetIsReadWholeOrNotAtAll) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"runtimeType":"uint64","value":1})",
       R"(runtimeType: expected a type name, found "uint64")"},
      {R"({"type":7})", "type: expected a string, found 7"},
      {R"({})", "runtimeType: expected a type name, found nothing"},
      {R"({"runtimeType":7,"type":"boolean"})", "runtimeType: expected a string, found 7"},
      {R"({"runtimeType":"boolean","type":"int8","value":true})", "type: no member of boolean"},
      {R"({"type":"boolean"})", "value: expected true or false, found nothing"},
      {R"({"type":"int32","value":1.5})",
       "value: expected an integer from -2147483648 to 2147483647, found 1.5"},
      {R"({"type":"int8","value":128})", "value: expected an integer from -128 to 127, found 128"},
      {R"({"type":"int16","value":-32769})",
       "value: expected an integer from -32768 to 32767, found -32769"},
      {R"({"type":"uint8","value":256})", "value: expected an integer from 0 to 255, found 256"},
      {R"({"type":"uint16","value":65536})",
       "value: expected an integer from 0 to 65535, found 65536"},
      {R"({"type":"float32","value":1e39})",
       "value: expected a number within the range of float32, found 1e+39"},
      {R"({"type":"float64","value":"1"})", R"(value: expected a number, found "1")"},
      {R"({"type":"visibleString","value":true})", "value: expected a string, found true"},
      {R"({"type":"octetString","bytes":[1,256]})",
       "bytes[1]: expected an integer from 0 to 255, found 256"},
      {R"({"type":"octetString","bytes":[],"value":[]})", "value: no member of octetString"},
      {R"({"type":"octetString"})", "bytes: expected an array, found nothing"},
      {R"({"type":"bitString","bits":[1]})", "bits[0]: expected true or false, found 1"},
      {R"({"type":"utcTime","value":"yesterday"})",
       "value: expected a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds, found "
       R"("yesterday")"},
      {R"({"type":"utcTime","value":4294967296})",
       "value: expected a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds, found "
       "4294967296"},
      {R"({"type":"utcTime","value":-1})",
       "value: expected a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds, found "
       "-1"},
      {R"({"type":"structure","value":[]})", "elements: expected an array, found nothing"},
      {R"({"type":"structure","elements":[{"type":"boolean","value":true,"colour":"red"}]})",
       "elements[0].colour: no member of boolean"}};
  for (const auto& [value, reason] : cases) {
    const auto config = readStrictly(
        R"(,"appId":1,"confRev":1,"values":[{"type":"boolean","value":true},)" + value + "]");
    ASSERT_FALSE(config) << value;
    EXPECT_EQ(config.error().reason(), "values[1]." + reason);
  }
}

}  // namespace
}  // namespace tarnlink
