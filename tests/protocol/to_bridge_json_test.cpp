#include "protocol/to_bridge_json.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "protocol/from_bridge_json.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

std::string written(const Value& value) {
  JsonWriter out(0, 1);
  toBridgeJson(value, out);
  EXPECT_FALSE(out.failed());
  return std::string(out.text());
}

Value readBack(const std::string& text) {
  return fromBridgeJson<Value>(parseJson(text).value()).value();
}

TEST(ToBridgeJsonTest, ValuesAreWrittenAndReadBack) {
  const std::pair<Value, std::string> cases[] = {
      {Value::boolean(true), R"({"runtimeType":"boolean","value":true})"},
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
    EXPECT_EQ(written(readBack(text)), text);  // As text: zeros have signs.
  }
  EXPECT_EQ(written(Value::unknown(0x8C, {7, 8})),
            R"({"runtimeType":"octetString","bytes":[7,8]})");
}

TEST(ToBridgeJsonTest, FullOctetAndBitStringsFitTheRoomThatWasEnsured) {
  for (std::size_t length = 0; length < 300; length += 7) {
    const Value octets = Value::octetString(Bytes(length, 255));
    EXPECT_EQ(readBack(written(octets)), octets);
    const Value bits = Value::bitString(Value::BitString(length, false));
    EXPECT_EQ(readBack(written(bits)), bits);
  }
}

}  // namespace
}  // namespace tarnlink
