#include "protocol/from_bridge_json.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <variant>

namespace tarnlink {
using namespace goosestack;
namespace {

using Value = GooseDataValue;
using Case = Unreadable::Case;

TEST(FromBridgeJsonTest, MacTextsFollowOneRule) {
  constexpr MacAddress kAddress{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  for (const std::string text : {"01:0c:CD:01:00:01", ":-01:0C-CD:01::00:01--"}) {
    EXPECT_EQ(parseMacAddress(text), kAddress) << text;
  }
  for (const std::string text :
       {"", ":::::", "1:0C:CD:01:00:01", "01:0C:CD:01:00", "01:0C:CD:01:00:01:02",
        "01:0C:CD:01:00:0G", "01:0C:CD:01:00:001", "+1:0C:CD:01:00:01", "010CCD010001"}) {
    EXPECT_FALSE(parseMac(text)) << text;
  }
}

// The members of a value, what a lenient reading makes of them, and why a strict one does not.
TEST(FromBridgeJsonTest, ValuesAreReadByTheirTypeNames) {
  struct Reads {
    std::string members;
    std::variant<Value, Case> lenient;
    std::string strictReason;
  };
  const auto time = timeFromUnixSeconds(1715933730);
  const auto integer = [](const std::string& low, const std::string& high, const char* found) {
    return "value: expected an integer from " + low + " to " + high + ", found " + found;
  };
  const auto int32 = [&](const char* found) { return integer("-2147483648", "2147483647", found); };
  const std::string kUtc =
      "value: expected a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds, found ";
  const Reads cases[] = {
      {R"("runtimeType":"uint64","value":7)", Case::incomplete,
       R"(runtimeType: expected a type name, found "uint64")"},
      {R"("type":7)", Case::incomplete, "type: expected a string, found 7"},
      {R"("value":true)", Case::incomplete, "runtimeType: expected a type name, found nothing"},
      {R"("runtimeType":7,"type":"boolean","value":true)", Value::boolean(true),
       "runtimeType: expected a string, found 7"},
      {R"("runtimeType":"boolean","type":"int8","value":true)", Value::boolean(true),
       "type: no member of boolean"},
      {R"("type":"boolean")", Value::boolean(false),
       "value: expected true or false, found nothing"},
      {R"("type":"int8","value":-128)", Value::integer(-128), ""},
      {R"("type":"int8","value":128)", Value::integer(128), integer("-128", "127", "128")},
      {R"("type":"int16","value":1.5)", Value::integer(0), integer("-32768", "32767", "1.5")},
      {R"("type":"int32","value":"5")", Value::integer(0), int32(R"("5")")},
      {R"("type":"int32","value":2147483648)", Case::refused, int32("2147483648")},
      {R"("type":"int64","value":-2147483649)", Case::refused, int32("-2147483649")},
      {R"("type":"int64","value":1e20)", Value::integer(0), int32("1e+20")},
      {R"("type":"uint8","value":300)", Value::unsignedInteger(300), integer("0", "255", "300")},
      {R"("type":"uint8","value":-1)", Case::refused, integer("0", "255", "-1")},
      {R"("type":"uint16","value":65536)", Value::unsignedInteger(65536),
       integer("0", "65535", "65536")},
      {R"("type":"uint16","value":1e2)", Value::unsignedInteger(100), ""},
      {R"("type":"uint32","value":4294967295)", Value::unsignedInteger(4294967295U), ""},
      {R"("type":"uint32","value":4294967296)", Case::refused,
       integer("0", "4294967295", "4294967296")},
      {R"("type":"float32","value":3.4028235e38)",
       Value::floatingPoint(std::numeric_limits<float>::max()), ""},
      {R"("type":"float32","value":-3.4028236e38)", Case::refused,
       "value: expected a number within the range of float32, found -3.4028236e+38"},
      {R"("type":"float64","value":3)", Value::realDouble(3), ""},
      {R"("type":"float64","value":null)", Value::realDouble(0),
       "value: expected a number, found null"},
      {R"("type":"mmsString","value":"x")", Value::visibleString("x"), ""},
      {R"("type":"visibleString","value":true)", Value::visibleString(""),
       "value: expected a string, found true"},
      {R"("type":"octetString","value":[1,2,300])", Value::octetString({1, 2, 44}),
       "value[2]: expected an integer from 0 to 255, found 300"},
      {R"("type":"octetString","bytes":[-1],"value":[1])", Value::octetString({255}),
       "bytes[0]: expected an integer from 0 to 255, found -1"},
      {R"("type":"octetString","bytes":[],"value":[])", Value::octetString({}),
       "value: no member of octetString"},
      {R"("type":"octetString","bytes":[1,1.5],"value":[1])", Value::octetString({1}),
       "bytes[1]: expected an integer from 0 to 255, found 1.5"},
      {R"("type":"bitString","value":[true])", Value::bitString({true}), ""},
      {R"("type":"bitString","bits":[true,0])", Value::bitString({}),
       "bits[1]: expected true or false, found 0"},
      {R"("type":"utcTime","value":"2024-05-17T08:15:30Z")", Value::utcTime(time), ""},
      {R"("type":"utcTime","value":1715933730)", Value::utcTime(time), ""},
      {R"("type":"utcTime","value":4294967296)", Value::utcTime(timeFromUnixSeconds(0x1p32)),
       kUtc + "4294967296"},
      {R"("type":"utcTime","value":-1)", Value::utcTime(timeFromUnixSeconds(-1)), kUtc + "-1"},
      {R"("type":"utcTime","value":"yesterday")", Value::utcTime(TimePoint{}),
       kUtc + R"("yesterday")"},
      {R"("type":"structure","value":[])", Value::structure({}),
       "elements: expected an array, found nothing"},
      {R"("type":"array","elements":[{"type":"boolean","value":false},7])", Value::array({}),
       "elements[1]: expected a dataset value, found 7"},
      {R"("type":"structure","elements":[{"type":"int8","value":3},{"type":"uint64","value":-1}])",
       Value::structure({Value::integer(3)}),
       R"(elements[1].type: expected a type name, found "uint64")"},
      {R"("type":"array","elements":[{"type":"structure","elements":[{"type":"uint8","value":-1}]}])",
       Case::refused, "elements[0].elements[0]." + integer("0", "255", "-1")}};
  for (const auto& [members, lenient, strictReason] : cases) {
    SCOPED_TRACE(members);
    const Json object = parseJson("{" + members + "}").value();
    const auto read = fromBridgeJson<Value>(object);
    if (const auto* value = std::get_if<Value>(&lenient)) {
      ASSERT_TRUE(read);
      EXPECT_EQ(*read, *value);
    } else {
      ASSERT_FALSE(read);
      EXPECT_EQ(read.error().which, std::get<Case>(lenient));
    }
    const auto strict = fromBridgeJson<Value>(object, Reading::strict);
    EXPECT_EQ(strict ? "" : strict.error().reason(), strictReason);
    EXPECT_TRUE(!strict || *strict == *read);
  }
}

auto readRequest(const std::string& members, Reading reading) {
  return fromBridgeJson<GoosePublishConfig>(parseJson("{" + members + "}").value(), reading);
}

// The required members, then more, which differ from their neighbours of the same type.
TEST(FromBridgeJsonTest, RequestsFillEveryFieldOrTakeDefaults) {
  const std::string required = R"("appId":1,"goCBRef":"cb","dataSetRef":"ds","confRev":2)";
  // clang-format off
  const GoosePublishConfig defaults{
      1, "cb", "ds", "cb", 2, 0, 4, false, false, {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01}, {},
      RetransmissionProfile::standard(), {}, "en0", 10000, false, false, 0, 0, false, false};
  const GoosePublishConfig full{
      1, "cb", "ds", "id", 2, 100, 6, true, true, {0x01, 0x0C, 0xCD, 0x01, 0x01, 0xFF},
      MacAddress{0x02, 0, 0, 0, 0, 0x01}, RetransmissionProfile::fast(), {Value::boolean(true)},
      "eth1", 4294967295U, false, true, 4294967295U, 3, true, false};
  // clang-format on
  for (
      const std::string more :
      {R"()", R"(,"goID":"","goId":7,"timeAllowedToLive":0,"retransmissionProfile":"FAST")",
       R"(,"dstMac":"nowhere","srcMac":"x","interface":7,"vlanId":"100","vlanPriority":1.5)",
       R"(,"values":[{"type":"boolean"},1],"test":1,"lockStNum":"true","stNum":1e30,"appId":65537)",
       R"(,"values":{"type":"boolean"},"timeAllowedToLive":-5,"sqNum":null)"}) {
    EXPECT_EQ(readRequest(required + more, Reading::lenient).value(), defaults) << more;
  }
  const std::string all =
      R"(,"cmd":"publish_goose","requestId":7,"strict":true,"vlanId":100,"vlanPriority":6,)"
      R"("vlanCfi":true,"goId":"id","interface":"eth1","retransmissionProfile":"fast",)"
      R"("timeAllowedToLive":4294967295,"test":false,"needsCommission":true,"stNum":4294967295,)"
      R"("sqNum":3,"lockStNum":true,"lockSqNum":false,"dstMac":"01-0C-CD-01-01-FF",)"
      R"("srcMac":"02:00:00:00:00:01","values":[{"type":"boolean","value":true}])";
  for (const Reading reading : {Reading::lenient, Reading::strict}) {
    EXPECT_EQ(readRequest(required + all, reading).value(), full);
  }
  const auto flags = readRequest(
      required + R"(,"vlanId":1,"vlanTagged":false,"test":true,"retransmissionProfile":"single")",
      Reading::strict);
  EXPECT_TRUE(flags->simulation && !flags->vlanTagged);
  EXPECT_EQ(flags->retransmissionProfile, RetransmissionProfile::single());
}

TEST(FromBridgeJsonTest, RequestsThatCannotBePublishedAreRefused) {
  const std::string required = R"("appId":1,"goCBRef":"cb","dataSetRef":"ds","confRev":2)";
  // What comes again counts instead.
  for (const std::string more :
       {R"(,"appId":"1")", R"(,"goCBRef":null)", R"(,"dataSetRef":7)", R"(,"confRev":1.5)",
        R"(,"confRev":-1)", R"(,"confRev":4294967296)", R"(,"vlanId":65536)", R"(,"vlanId":-1)",
        R"(,"vlanPriority":256)", R"(,"stNum":-1)", R"(,"sqNum":4294967296)",
        R"(,"timeAllowedToLive":4294967296)", R"(,"values":[{"type":"int32","value":3e9}])"}) {
    EXPECT_FALSE(readRequest(required + more, Reading::lenient)) << more;
  }
  const std::pair<std::string, std::string> cases[] = {
      {R"("goCBRef":"cb")", "appId: expected an integer from 0 to 65535, found nothing"},
      {R"("appId":65536)", "appId: expected an integer from 0 to 65535, found 65536"},
      {required + R"(,"goID":"")", R"(goID: expected a GOOSE id, found "")"},
      {required + R"(,"goID":"a","goId":"b")", "goId: no member of publish_goose"},
      {required + R"(,"interface":["eth0"])", "interface: expected a string, found an array"},
      {required + R"(,"srcMac":7)", "srcMac: expected an address as 01:0C:CD:01:00:01, found 7"},
      {required + R"(,"retransmissionProfile":"singel")",
       R"(retransmissionProfile: expected standard, fast or single, found "singel")"},
      {required + R"(,"timeAllowedToLive":0)",
       "timeAllowedToLive: expected an integer from 1 to 4294967295, found 0"},
      {required + R"(,"test":1)", "test: expected true or false, found 1"},
      {required + R"(,"test":true,"test":false)", "test: expected once, found more than once"},
      {required + R"(,"values":{})", "values: expected an array, found an object"},
      {required + R"(,"values":[7])", "values[0]: expected a dataset value, found 7"}};
  for (const auto& [members, reason] : cases) {
    EXPECT_EQ(readRequest(members, Reading::strict).error().reason(), reason);
  }
}

}  // namespace
}  // namespace tarnlink
