#include "goosestack/goose_pdu.h"

#include <gtest/gtest.h>

#include "ber/ber_writer.h"
#include "tests/stack/allocation_count.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

/// A whole payload around the content of the PDU element, both in hexadecimal.
Bytes payloadOf(const std::string& content) {
  const Bytes octets = hexBytes(content);
  Bytes payload = hexBytes("0003 1234 0001 0002");
  EXPECT_TRUE(appendBerTLV(payload, 0x61, octets));
  return payload;
}

constexpr const char* kMandatory =
    "80 01 41  81 02 07 D0  82 01 42  84 08 66 47 0E 62 20 00 00 0A  85 01 05  86 01 06  88 01 01 "
    " 8A 01 02 ";

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
  struct Case {
    Bytes payload;
    std::string text;
  };
  const Case cases[] = {
      {{}, "Too short for GOOSE header"},
      {hexBytes("0003 0008 0000 00"), "Too short for GOOSE header"},
      {hexBytes("0003 0008 0000 0000"), wrongTag + "empty"},
      {hexBytes("0003 0008 0000 0000 62 00"), wrongTag + "62"},
      {hexBytes("0003 0008 0000 0000 05 00"), wrongTag + "5"},
      {hexBytes("0003 0008 0000 0000 AB"), wrongTag + "ab"},
      {hexBytes("0003 0008 0000 0000 61 02 80"), wrongTag + "61"},
      {payloadOf("80 01 41 81 01 01 82 00 85 01 01 86 01 01 88 01 01"),
       missing + "t, numDatSetEntries"},
      // The malformed element hides those behind it.
      {payloadOf("80 01 41 81 01 01 82 00 84 80 85 01 01 86 01 01 88 01 01 8A 01 01"),
       missing + "t, stNum, sqNum, confRev, numDatSetEntries"},
      {payloadOf(""), missing + "gocbRef, timeAllowedToLive, datSet, t, stNum, sqNum, confRev, "
                                "numDatSetEntries"},
  };
  for (const auto& [payload, text] : cases) EXPECT_EQ(refusalOf(payload), text);
}

TEST(GoosePdu, MandatoryFieldsAloneAreEnough) {
  Bytes payload = payloadOf(kMandatory);
  payload.resize(payload.size() + 20, 0xEE);  // Padding.
  const auto pdu = GoosePdu::parse(payload);
  ASSERT_TRUE(pdu);
  GoosePdu expected;
  expected.header = {3, 0x1234, 1, 2};
  expected.goCBRef = "A";
  expected.timeAllowedToLive = 2000;
  expected.datSet = "B";
  expected.timestamp = timeFromUnixSeconds(1715932770.125);
  expected.stNum = 5;
  expected.sqNum = 6;
  expected.confRev = 1;
  expected.numDatSetEntries = 2;
  EXPECT_EQ(*pdu, expected);
}

TEST(GoosePdu, LastFieldButFirstDatasetCounts) {
  const auto pdu = GoosePdu::parse(payloadOf(
      "AB 03 85 01 07  AB 03 85 01 08  80 01 43  83 02 C3 28  87 02 00 FF  89 01 01  99 01 00 " +
      std::string(kMandatory) + "85 01 09  80 01 44"));
  ASSERT_TRUE(pdu);
  EXPECT_EQ(pdu->goCBRef, "D");
  EXPECT_EQ(pdu->stNum, 9U);
  EXPECT_EQ(pdu->goId, "");  // Not UTF-8.
  EXPECT_FALSE(pdu->simulation);
  EXPECT_TRUE(pdu->ndsCom);
  EXPECT_EQ(pdu->allData, std::vector{Value::integer(7)});
}

struct DataCase {
  const char* octets;
  Value expected;
};

std::vector<DataCase> dataCases() {
  return {
      {"83 00", Value::boolean(false)},
      {"83 02 00 01", Value::boolean(false)},
      {"83 01 02", Value::boolean(true)},
      {"84 00", Value::bitString({})},
      {"84 01 03", Value::bitString({})},
      {"84 02 04 A0", Value::bitString({true, false, true, false})},
      {"84 02 08 FF", Value::bitString({})},
      {"84 03 FF 80 FF", Value::bitString({true, false, false, false, false, false, false, false})},
      {"84 03 07 00 FF",
       Value::bitString({false, false, false, false, false, false, false, false, true})},
      {"85 00", Value::integer(0)},
      {"85 01 FF", Value::integer(-1)},
      {"85 02 00 80", Value::integer(128)},
      {"85 02 FF 7F", Value::integer(-129)},
      {"85 05 00 80 00 00 01", Value::integer(-2147483647)},
      {"86 00", Value::unsignedInteger(0)},
      {"86 05 00 FF FF FF FF", Value::unsignedInteger(4294967295)},
      {"86 06 01 02 00 00 00 05", Value::unsignedInteger(5)},
      {"87 05 08 3F C0 00 00", Value::floatingPoint(1.5F)},
      {"87 05 77 BF C0 00 00", Value::floatingPoint(-1.5F)},
      {"87 09 0B 3F F8 00 00 00 00 00 00", Value::floatingPoint(0.0F)},
      {"87 04 3F C0 00 00", Value::floatingPoint(0.0F)},
      {"88 09 0B 3F F8 00 00 00 00 00 00",
       Value::unknown(0x88, hexBytes("0B 3F F8 00 00 00 00 00 00"))},
      {"89 03 00 FF 10", Value::octetString({0, 255, 16})},
      {"8A 02 C3 A4", Value::visibleString("ä")},
      {"8A 02 C3 28", Value::visibleString("")},
      {"91 07 00 00 00 01 80 00 00", Value::utcTime(timeFromUnixSeconds(1.5))},
      {"91 06 00 00 00 01 80 00", Value::utcTime(kDistantPast)},
      {"A1 05 83 01 FF 85 00", Value::array({Value::boolean(true), Value::integer(0)})},
      {"A2 07 83 01 FF A2 02 86 00",
       Value::structure({Value::boolean(true), Value::structure({Value::unsignedInteger(0)})})},
      {"A2 05 83 01 FF 85 05", Value::structure({Value::boolean(true)})},
      {"8C 02 01 02", Value::unknown(0x8C, {1, 2})},
  };
}

TEST(GoosePdu, DataValues) {
  for (const auto& [octets, expected] : dataCases()) {
    SCOPED_TRACE(octets);
    EXPECT_EQ(GoosePdu::parseDataValues(hexBytes(octets)), std::vector{expected});
  }
}

TEST(GoosePdu, ReusedPduKeepsNothingOfTheFrameBefore) {
  std::vector<Bytes> payloads;
  for (const auto& [octets, expected] : dataCases()) {
    const Bytes value = hexBytes(octets);
    Bytes content = hexBytes(kMandatory);
    ASSERT_TRUE(appendBerTLV(content, 0xAB, value));
    Bytes payload = hexBytes("0003 0000 0000 0000");
    ASSERT_TRUE(appendBerTLV(payload, 0x61, content));
    payloads.push_back(std::move(payload));
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

GoosePdu fieldsOf(const std::vector<Value>& values) {
  GoosePdu fields;
  fields.header.appId = 0x3FFF;
  fields.goCBRef = "IED1LD0/LLN0$GO$gcb01";
  fields.timeAllowedToLive = 2000;
  fields.datSet = "IED1LD0/LLN0$dataset";
  fields.goId = "Trip";
  fields.stNum = 1;
  fields.sqNum = 4294967295;
  fields.simulation = true;
  fields.confRev = 128;
  fields.allData = values;
  fields.timestamp = timeFromUnixSeconds(1715932770.125);
  return fields;
}

TEST(GoosePdu, EveryTruncatedPrefixIsRefused) {
  const std::vector<Value> values{Value::structure({Value::integer(300), Value::boolean(true)})};
  const Bytes payload = *GoosePdu::encode(fieldsOf(values));
  for (std::size_t length = 0; length < payload.size(); ++length) {
    EXPECT_NE(refusalOf({payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(length)}),
              "accepted")
        << length;
  }
}

TEST(GoosePdu, ContentBelowTheDeepestLevelIsDropped) {
  // Every level is a structure that fills the one around it, down to an integer.
  Bytes nested = hexBytes("85 01 07");
  int levels = 0;
  for (; nested.size() < 60000; ++levels) {
    Bytes outer;
    ASSERT_TRUE(appendBerTLV(outer, 0xA2, nested));
    nested = std::move(outer);
  }
  const std::vector<Value> values = GoosePdu::parseDataValues(nested);
  int depth = 0;
  const std::vector<Value>* members = &values;
  while (!members->empty()) {
    ASSERT_EQ(members->size(), 1U);
    members = &std::get<Value::Structure>(members->front().payload).members;
    ++depth;
  }
  EXPECT_GT(levels, 10000);
  EXPECT_EQ(depth, GoosePdu::kMaxDataNesting + 1);
}

TEST(GoosePdu, StructuresBeyondTheirNumberDecodeWithoutMembers) {
  const Bytes filled = hexBytes("A2 02 83 00");
  constexpr std::size_t kBeyond = 10;
  Bytes dataset = hexBytes("A2 00");  // Costs nothing, and does not count.
  for (std::size_t i = 0; i < GoosePdu::kMaxFilledStructures + kBeyond; ++i) {
    dataset.insert(dataset.end(), filled.begin(), filled.end());
  }
  const std::vector<Value> values = GoosePdu::parseDataValues(dataset);
  EXPECT_EQ(values.size(), 1 + GoosePdu::kMaxFilledStructures + kBeyond);
  for (std::size_t i = 1; i < values.size(); ++i) {
    const auto& members = std::get<Value::Structure>(values[i].payload).members;
    ASSERT_EQ(members.size(), i <= GoosePdu::kMaxFilledStructures ? 1U : 0U) << i;
  }
}

TEST(GoosePdu, StreamOfLikeFramesAllocatesNothing) {
  const std::string longText(40, 'x');
  const std::vector<Value> values{
      Value::boolean(true),           Value::bitString({true, false, true}),
      Value::floatingPoint(1.0F),     Value::octetString({1, 2, 3}),
      Value::visibleString(longText), Value::utcTime(timeFromUnixSeconds(1)),
      Value::realDouble(1.0),         Value::structure({Value::integer(5), Value::array({})}),
  };
  const Bytes payload = *GoosePdu::encode(fieldsOf(values));
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
