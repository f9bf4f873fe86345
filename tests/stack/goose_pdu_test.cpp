#include "goosestack/goose_pdu.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ber/ber_writer.h"
#include "tests/stack/allocation_count.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

/// A payload around the content of the PDU element.
Bytes payloadOf(const Bytes& content) {
  Bytes payload = hexBytes("0003 1234 0001 0002");
  EXPECT_TRUE(appendBerTLV(payload, 0x61, content));
  return payload;
}

constexpr const char* kMandatory =
    "80 01 41  81 02 07 D0  82 01 42  84 08 66 47 0E 62 20 00 00 0A  85 01 05  86 01 06  88 01 01 "
    " 8A 01 02 ";
const TimePoint kTime = timeFromUnixSeconds(1715932770.125);

std::string refusalOf(const Bytes& payload) {
  GoosePdu before;
  before.goCBRef = "untouched";
  GoosePdu pdu = before;
  const auto result = GoosePdu::parseInto(payload, pdu);
  EXPECT_EQ(pdu, before);
  if (result) return "accepted";
  EXPECT_EQ(result.error().which(), GooseError::Case::parseError);
  return result.error().description();
}

TEST(GoosePdu, Refusals) {
  const std::string wrongTag = "Expected GOOSE PDU tag 0x61, got ";
  const std::string missing = "Missing mandatory GOOSE fields: ";
  const auto payload = [](const char* content) { return payloadOf(hexBytes(content)); };
  const std::pair<Bytes, std::string> cases[] = {
      {hexBytes("0003 0008 0000 00"), "Too short for GOOSE header"},
      {hexBytes("0003 0008 0000 0000"), wrongTag + "empty"},
      {hexBytes("0003 0008 0000 0000 05 00"), wrongTag + "5"},
      {hexBytes("0003 0008 0000 0000 AB"), wrongTag + "ab"},
      {hexBytes("0003 0008 0000 0000 61 02 80"), wrongTag + "61"},
      // The malformed element hides those behind it.
      {payload("80 01 41 81 01 01 82 00 84 80 85 01 01 86 01 01 88 01 01 8A 01 01"),
       missing + "t, stNum, sqNum, confRev, numDatSetEntries"},
      {payload(""), missing + "gocbRef, timeAllowedToLive, datSet, t, stNum, sqNum, confRev, "
                              "numDatSetEntries"},
  };
  for (const auto& [octets, text] : cases) EXPECT_EQ(refusalOf(octets), text);
}

TEST(GoosePdu, MandatoryFieldsAloneAreEnough) {
  Bytes payload = payloadOf(hexBytes(kMandatory));
  payload.resize(payload.size() + 20, 0xEE);  // Padding.
  GoosePdu expected;
  expected.header = {3, 0x1234, 1, 2};
  expected.goCBRef = "A";
  expected.timeAllowedToLive = 2000;
  expected.datSet = "B";
  expected.timestamp = kTime;
  expected.stNum = 5;
  expected.sqNum = 6;
  expected.confRev = 1;
  expected.numDatSetEntries = 2;
  EXPECT_EQ(GoosePdu::parse(payload).value(), expected);
}

TEST(GoosePdu, LastFieldButFirstDatasetCounts) {
  const auto pdu = GoosePdu::parse(payloadOf(hexBytes(
      "AB 03 85 01 07  AB 03 85 01 08  80 01 43  83 02 C3 28  87 02 00 FF  89 01 01  99 01 00 " +
      std::string(kMandatory) + "85 01 09  80 01 44")));
  ASSERT_TRUE(pdu);
  EXPECT_EQ(pdu->goCBRef, "D");
  EXPECT_EQ(pdu->stNum, 9U);
  EXPECT_EQ(pdu->goId, "");  // Not UTF-8.
  EXPECT_FALSE(pdu->simulation);
  EXPECT_TRUE(pdu->ndsCom);
  EXPECT_EQ(pdu->allData, std::vector{Value::integer(7)});
}

/// With something of everything.
GoosePdu richPdu(std::vector<Value> values) {
  GoosePdu pdu;
  pdu.header = {0x0102, 0xFFFF, 0xFFFF, 0xFFFF};  // Of these the APPID alone is sent.
  pdu.goCBRef = "G";
  pdu.timeAllowedToLive = 128;
  pdu.datSet = "D";
  pdu.goId = "I";
  pdu.stNum = 4294967295;
  pdu.confRev = 256;
  pdu.ndsCom = true;
  pdu.numDatSetEntries = 77;  // Nor is this.
  pdu.allData = std::move(values);
  pdu.timestamp = kTime;
  return pdu;
}

TEST(GoosePdu, EncodedPayload) {
  const std::vector values{Value::boolean(true), Value::unknown(0x8C, {1}),
                           Value::unsignedInteger(5)};
  EXPECT_EQ(GoosePdu::encode(richPdu(values)).value(),
            hexBytes("0102 0040 0000 0000 61 36  80 01 47  81 02 00 80  82 01 44  83 01 49"
                     " 84 08 66 47 0E 62 20 00 00 0A  85 05 00 FF FF FF FF  86 01 00  87 01 00"
                     " 88 02 01 00  89 01 FF  8A 01 02  AB 06 83 01 FF 86 01 05"));
}

enum Direction { kBoth, kRead, kWritten };
struct DataCase {
  const char* octets;
  Value value;
  Direction direction = kBoth;
};

std::vector<DataCase> dataCases() {
  const auto timeOf = [](double seconds) { return Value::utcTime(timeFromUnixSeconds(seconds)); };
  return {
      {"83 01 00", Value::boolean(false)},
      {"83 00", Value::boolean(false), kRead},
      {"83 02 00 01", Value::boolean(false), kRead},
      {"84 01 00", Value::bitString({})},
      {"84 02 04 A0", Value::bitString({true, false, true, false})},
      {"84 02 00 FF", Value::bitString(Value::BitString(8, true))},
      {"84 03 07 FF 80", Value::bitString(Value::BitString(9, true))},
      {"84 00", Value::bitString({}), kRead},
      {"84 02 08 FF", Value::bitString({}), kRead},
      {"84 03 FF 80 FF", Value::bitString({true, false, false, false, false, false, false, false}),
       kRead},
      {"85 01 FF", Value::integer(-1)},
      {"85 02 00 80", Value::integer(128)},
      {"85 04 80 00 00 00", Value::integer(std::numeric_limits<std::int32_t>::min())},
      {"85 00", Value::integer(0), kRead},
      {"85 05 00 80 00 00 01", Value::integer(-2147483647), kRead},
      {"86 05 00 FF FF FF FF", Value::unsignedInteger(4294967295)},
      {"86 00", Value::unsignedInteger(0), kRead},
      {"86 06 01 02 00 00 00 05", Value::unsignedInteger(5), kRead},
      {"87 05 08 BF C0 00 00", Value::floatingPoint(-1.5F)},
      {"87 05 77 3F C0 00 00", Value::floatingPoint(1.5F), kRead},
      {"87 04 3F C0 00 00", Value::floatingPoint(0.0F), kRead},
      {"88 09 0B 3F F8 00 00 00 00 00 00", Value::realDouble(1.5), kWritten},
      {"88 02 0B 3F", Value::unknown(0x88, {0x0B, 0x3F}), kRead},
      {"89 02 00 FF", Value::octetString({0, 255})},
      {"8A 02 C3 A4", Value::visibleString("ä")},
      {"8A 02 C3 28", Value::visibleString(""), kRead},
      {"91 08 00 00 00 01 80 00 00 0A", timeOf(1.5)},
      {"91 07 00 00 00 01 80 00 00", timeOf(1.5), kRead},
      {"91 06 00 00 00 01 80 00", Value::utcTime(kDistantPast), kRead},
      {"91 08 FF FF FF FF 00 00 00 0A", timeOf(4294967295.0)},
      {"91 08 00 00 00 00 00 00 00 0A", timeOf(4294967295.5), kWritten},
      {"91 08 00 00 00 00 00 00 00 0A", timeOf(-0.5), kWritten},
      {"91 08 00 00 00 00 00 00 00 0A", timeOf(std::nan("")), kWritten},
      {"A1 06 83 01 FF 85 01 00", Value::array({Value::boolean(true), Value::integer(0)})},
      {"A2 08 83 01 FF A2 03 86 01 00",
       Value::structure({Value::boolean(true), Value::structure({Value::unsignedInteger(0)})})},
      {"A2 05 83 01 FF 85 05", Value::structure({Value::boolean(true)}), kRead},
      {"A2 02 A1 00", Value::structure({Value::unknown(1, {}), Value::array({})}), kWritten},
      {"8C 02 01 02", Value::unknown(0x8C, {1, 2}), kRead},
      {"", Value::unknown(0x8C, {1}), kWritten},
  };
}

TEST(GoosePdu, DataValues) {
  for (const auto& [octets, value, direction] : dataCases()) {
    SCOPED_TRACE(octets);
    if (direction != kWritten) {
      EXPECT_EQ(GoosePdu::parseDataValues(hexBytes(octets)), std::vector{value});
    }
    if (direction == kRead) continue;
    Bytes out = hexBytes("EE");
    EXPECT_TRUE(GoosePdu::encodeDataValue(value, out));
    EXPECT_EQ(out, hexBytes(std::string("EE") + octets));
  }
}

TEST(GoosePdu, WhatIsTooLargeIsRefusedWithBothSizes) {
  const auto refusal = [](Value value) {
    GoosePdu pdu;
    pdu.allData = {std::move(value)};
    const auto payload = GoosePdu::encode(pdu);
    if (payload) return "accepted " + std::to_string(payload->size());
    EXPECT_EQ(payload.error().which(), GooseError::Case::sendFailed);
    return payload.error().description();
  };
  // Everything around the octets takes 49, the header 8.
  EXPECT_EQ(refusal(Value::octetString(Bytes(65527 - 49))), "accepted 65535");
  EXPECT_EQ(refusal(Value::octetString(Bytes(65527 - 48))),
            "GOOSE PDU of 65528 octets exceeds the limit of 65527");
  const auto tooLarge = Value::structure({Value::octetString(Bytes(70000)), Value::array({})});
  EXPECT_EQ(refusal(tooLarge), "GOOSE element of 70000 octets exceeds the limit of 65535");
  const Value half = Value::octetString(Bytes(33000));
  EXPECT_EQ(refusal(Value::array({half, half})),
            "GOOSE element of 66008 octets exceeds the limit of 65535");

  Bytes out = hexBytes("EE");
  EXPECT_FALSE(GoosePdu::encodeDataValue(tooLarge, out));
  EXPECT_EQ(out, hexBytes("EE"));
}

TEST(GoosePdu, ReusedPduKeepsNothingOfTheFrameBefore) {
  std::vector<Bytes> payloads;
  for (const auto& [octets, value, direction] : dataCases()) {
    Bytes content = hexBytes(kMandatory);
    ASSERT_TRUE(appendBerTLV(content, 0xAB, hexBytes(octets)));
    payloads.push_back(payloadOf(content));
  }
  GoosePdu reused;
  for (const Bytes& before : payloads) {
    for (const Bytes& payload : payloads) {
      ASSERT_TRUE(GoosePdu::parseInto(before, reused));
      ASSERT_TRUE(GoosePdu::parseInto(payload, reused));
      EXPECT_EQ(reused, *GoosePdu::parse(payload));
    }
  }
}

TEST(GoosePdu, EveryTruncatedPrefixIsRefused) {
  const Bytes payload =
      *GoosePdu::encode(richPdu({Value::structure({Value::integer(300), Value::boolean(true)})}));
  for (std::size_t length = 0; length < payload.size(); ++length) {
    const ByteView prefix = ByteView(payload).first(length);
    EXPECT_NE(refusalOf({prefix.begin(), prefix.end()}), "accepted") << length;
  }
}

TEST(GoosePdu, ContentBelowTheDeepestLevelIsDropped) {
  // Every level is a structure that fills the one around it, down to an integer.
  Bytes nested = hexBytes("85 01 07");
  while (nested.size() < 60000) {
    const Bytes inner = std::exchange(nested, {});
    ASSERT_TRUE(appendBerTLV(nested, 0xA2, inner));
  }
  const std::vector<Value> values = GoosePdu::parseDataValues(nested);
  int depth = 0;
  for (const auto* members = &values; !members->empty(); ++depth) {
    members = &std::get<Value::Structure>(members->front().payload).members;
  }
  EXPECT_EQ(depth, GoosePdu::kMaxDataNesting + 1);
}

TEST(GoosePdu, StructuresBeyondTheirNumberDecodeWithoutMembers) {
  Bytes dataset = hexBytes("A2 00");  // Costs nothing, and does not count.
  for (std::size_t i = 0; i < GoosePdu::kMaxFilledStructures + 10; ++i) {
    const Bytes filled = hexBytes("A2 02 83 00");
    dataset.insert(dataset.end(), filled.begin(), filled.end());
  }
  const std::vector<Value> values = GoosePdu::parseDataValues(dataset);
  EXPECT_EQ(values.size(), 1 + GoosePdu::kMaxFilledStructures + 10);
  for (std::size_t i = 1; i < values.size(); ++i) {
    const auto& members = std::get<Value::Structure>(values[i].payload).members;
    ASSERT_EQ(members.size(), i <= GoosePdu::kMaxFilledStructures ? 1U : 0U) << i;
  }
}

TEST(GoosePdu, StreamOfLikeFramesAllocatesNothing) {
  const Bytes payload = *GoosePdu::encode(richPdu({
      Value::boolean(true),
      Value::bitString({true, false, true}),
      Value::octetString({1, 2, 3}),
      Value::visibleString(std::string(40, 'x')),
      Value::realDouble(1.0),
      Value::structure({Value::integer(5), Value::array({})}),
  }));
  GoosePdu pdu;
  ASSERT_TRUE(GoosePdu::parseInto(payload, pdu));
  const std::size_t before = allocationCount();
  const bool parsed = GoosePdu::parseInto(payload, pdu).has_value();
  EXPECT_EQ(allocationCount(), before);
  EXPECT_TRUE(parsed);
  const auto fresh = GoosePdu::parse(payload);
  EXPECT_GT(allocationCount(), before);  // The counter counts.
}

}  // namespace
}  // namespace tarnlink::test
