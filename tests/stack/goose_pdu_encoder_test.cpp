#include <gtest/gtest.h>

#include <limits>

#include "goosestack/goose_pdu.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

TEST(GoosePduEncoder, WholePayload) {
  const std::vector<Value> values{Value::boolean(true), Value::unknown(0x8C, {1}),
                                  Value::unsignedInteger(5)};
  GoosePdu fields;
  fields.header = {0x0102, 0xFFFF, 0xFFFF, 0xFFFF};
  fields.goCBRef = "G";
  fields.timeAllowedToLive = 128;
  fields.datSet = "D";
  fields.goId = "I";
  fields.stNum = 4294967295;
  fields.confRev = 256;
  fields.ndsCom = true;
  fields.allData = values;
  fields.timestamp = timeFromUnixSeconds(1715932770.125);
  EXPECT_EQ(*GoosePdu::encode(fields),
            hexBytes("0102 0040 0000 0000 61 36  80 01 47  81 02 00 80  82 01 44  83 01 49"
                     " 84 08 66 47 0E 62 20 00 00 0A  85 05 00 FF FF FF FF  86 01 00  87 01 00"
                     " 88 02 01 00  89 01 FF  8A 01 02  AB 06 83 01 FF 86 01 05"));
}

TEST(GoosePduEncoder, EmptyDatasetHasItsElements) {
  const Bytes payload = *GoosePdu::encode({});
  EXPECT_EQ(Bytes(payload.end() - 5, payload.end()), hexBytes("8A 01 00 AB 00"));
}

TEST(GoosePduEncoder, DataValues) {
  struct Case {
    Value value;
    const char* expected;
  };
  const Case cases[] = {
      {Value::boolean(false), "83 01 00"},
      {Value::bitString({}), "84 01 00"},
      {Value::bitString({true, false, true, false}), "84 02 04 A0"},
      {Value::bitString(Value::BitString(8, true)), "84 02 00 FF"},
      {Value::bitString(Value::BitString(9, true)), "84 03 07 FF 80"},
      {Value::integer(-1), "85 01 FF"},
      {Value::integer(128), "85 02 00 80"},
      {Value::integer(-129), "85 02 FF 7F"},
      {Value::integer(std::numeric_limits<std::int32_t>::min()), "85 04 80 00 00 00"},
      {Value::unsignedInteger(127), "86 01 7F"},
      {Value::unsignedInteger(128), "86 02 00 80"},
      {Value::unsignedInteger(4294967295), "86 05 00 FF FF FF FF"},
      {Value::floatingPoint(-1.5F), "87 05 08 BF C0 00 00"},
      {Value::realDouble(1.5), "88 09 0B 3F F8 00 00 00 00 00 00"},
      {Value::octetString({0, 255}), "89 02 00 FF"},
      {Value::visibleString("ä"), "8A 02 C3 A4"},
      {Value::utcTime(timeFromUnixSeconds(1.5)), "91 08 00 00 00 01 80 00 00 0A"},
      {Value::structure({Value::boolean(true), Value::unknown(1, {}), Value::array({})}),
       "A2 05 83 01 FF A1 00"},
      {Value::unknown(0x8C, {1}), ""},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(expected);
    Bytes out = hexBytes("EE");
    EXPECT_TRUE(GoosePdu::encodeDataValue(value, out));
    EXPECT_EQ(out, hexBytes(std::string("EE") + expected));
  }
}

TEST(GoosePduEncoder, TimesThatDoNotFitAreZero) {
  struct Case {
    double seconds;
    const char* expected;
  };
  const Case cases[] = {
      {0.0, "00 00 00 00 00 00 00 0A"},
      {4294967294.75, "FF FF FF FE C0 00 00 0A"},
      {4294967295.0, "FF FF FF FF 00 00 00 0A"},
      {4294967295.5, "00 00 00 00 00 00 00 0A"},
      {1e300, "00 00 00 00 00 00 00 0A"},
      {-0.5, "00 00 00 00 00 00 00 0A"},
      {unixSeconds(kDistantPast), "00 00 00 00 00 00 00 0A"},
      {std::numeric_limits<double>::infinity(), "00 00 00 00 00 00 00 0A"},
      {std::numeric_limits<double>::quiet_NaN(), "00 00 00 00 00 00 00 0A"},
  };
  for (const auto& [seconds, expected] : cases) {
    SCOPED_TRACE(seconds);
    const auto octets = GoosePdu::encodeUTCTime(timeFromUnixSeconds(seconds));
    EXPECT_EQ(Bytes(octets.begin(), octets.end()), hexBytes(expected));
  }
}

TEST(GoosePduEncoder, RefusalNamesBothSizes) {
  GoosePdu fields;
  const auto refusal = [&fields](std::vector<Value> values) {
    fields.allData = values;
    const auto payload = GoosePdu::encode(fields);
    if (payload) return "accepted " + std::to_string(payload->size());
    EXPECT_EQ(payload.error().which(), GooseError::Case::sendFailed);
    return payload.error().description();
  };
  // Everything around the octets takes 49, the header 8.
  const Value largest = Value::octetString(Bytes(65527 - 49));
  const Value tooLargeForTheFrame = Value::octetString(Bytes(65527 - 48));
  const Value tooLargeForAnElement = Value::octetString(Bytes(70000));
  EXPECT_EQ(refusal({largest}), "accepted 65535");
  EXPECT_EQ(refusal({tooLargeForTheFrame}), "GOOSE PDU of 65528 octets exceeds the limit of 65527");
  EXPECT_EQ(refusal({Value::structure({tooLargeForAnElement})}),
            "GOOSE element of 70000 octets exceeds the limit of 65535");

  Bytes out = hexBytes("EE");
  EXPECT_FALSE(GoosePdu::encodeDataValue(Value::array({tooLargeForAnElement}), out));
  EXPECT_EQ(out, hexBytes("EE"));
}

}  // namespace
}  // namespace tarnlink::test
