#include "goosestack/sv_pdu.h"

#include <gtest/gtest.h>

#include "ber/ber_writer.h"
#include "tests/stack/allocation_count.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

constexpr const char* kMandatory = "80 02 4D 55  82 02 0F 9F  83 04 00 00 00 07  85 01 02 ";
constexpr const char* kSample = "87 08 FF FF FF FE 00 00 20 00 ";

Bytes element(std::uint8_t tag, const Bytes& content) {
  Bytes out;
  EXPECT_TRUE(appendBerTLV(out, tag, content));
  return out;
}

/// A payload of these ASDUs, each given by its fields in hexadecimal.
Bytes payloadOf(const std::vector<std::string>& asdus) {
  Bytes sequence;
  for (const std::string& fields : asdus) {
    const Bytes asdu = element(0x30, hexBytes(fields));
    sequence.insert(sequence.end(), asdu.begin(), asdu.end());
  }
  Bytes content = hexBytes("80 01 02");
  const Bytes all = element(0xA2, sequence);
  content.insert(content.end(), all.begin(), all.end());
  Bytes payload = hexBytes("4001 0050 8000 0102");
  const Bytes pdu = element(0x60, content);
  payload.insert(payload.end(), pdu.begin(), pdu.end());
  return payload;
}

std::string full() {
  return kMandatory +
         std::string(
             "81 01 64  84 08 66 47 0E 62 20 00 00 0A  86 02 00 50  88 01 01 "
             "99 01 00 ") +
         kSample;
}

TEST(SvPdu, FieldsOfEachAsdu) {
  Bytes payload = payloadOf({full(), std::string(kSample) + kMandatory + "80 02 C3 28 82 01 05"});
  payload.resize(payload.size() + 9, 0xEE);  // Padding.
  SvPdu pdu;
  ASSERT_TRUE(SvPdu::parseInto(payload, pdu));
  EXPECT_EQ(pdu.appId, 0x4001);
  EXPECT_EQ(pdu.length, 0x50);
  EXPECT_EQ(pdu.reserved2, 0x0102);
  EXPECT_TRUE(pdu.simulated());
  EXPECT_EQ(pdu.noAsdu, 2U);
  ASSERT_EQ(pdu.asdus.size(), 2U);
  const SvAsdu& first = pdu.asdus[0];
  EXPECT_EQ(first.svId, "MU");
  EXPECT_EQ(first.datSet, "d");
  EXPECT_EQ(first.smpCnt, 3999);
  EXPECT_EQ(first.confRev, 7U);
  EXPECT_EQ(first.refrTm, timeFromUnixSeconds(1715932770.125));
  EXPECT_EQ(first.smpSynch, 2);
  EXPECT_EQ(first.smpRate, 80);
  EXPECT_EQ(first.smpMod, 1);
  EXPECT_EQ(Bytes(first.samples.begin(), first.samples.end()), hexBytes("FFFFFFFE 00002000"));
  const SvAsdu& second = pdu.asdus[1];
  EXPECT_EQ(second.svId, "");  // Not UTF-8.
  EXPECT_EQ(second.smpCnt, 5);
  EXPECT_FALSE(second.datSet || second.refrTm || second.smpRate || second.smpMod);
}

TEST(SvPdu, Refusals) {
  struct Case {
    Bytes payload;
    std::string text;
  };
  const Case cases[] = {
      {hexBytes("4001 0008 0000 00"), "Too short for SV header"},
      {hexBytes("4001 0008 0000 0000"), "Expected SV PDU tag 0x60, got empty"},
      {hexBytes("4001 0008 0000 0000 61 00"), "Expected SV PDU tag 0x60, got 61"},
      {hexBytes("4001 0008 0000 0000 60 03 80 01 01"), "Missing seqASDU"},
      {hexBytes("4001 0008 0000 0000 60 04 A2 02 31 00"), "Malformed ASDU 1"},
      {payloadOf({full(), kSample}),
       "Missing mandatory SV fields: svID, smpCnt, confRev, smpSynch"},
      {payloadOf({kMandatory}), "Missing mandatory SV fields: sample"},
  };
  SvPdu pdu;
  for (const auto& [payload, text] : cases) {
    SCOPED_TRACE(text);
    ASSERT_TRUE(SvPdu::parseInto(payloadOf({full()}), pdu));
    const auto result = SvPdu::parseInto(payload, pdu);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), GooseError::parseError(text));
    EXPECT_TRUE(pdu.asdus.empty());  // They would borrow from a payload that is gone.
  }
}

TEST(SvPdu, EveryTruncatedPrefixIsRefused) {
  const Bytes payload = payloadOf({full(), full()});
  SvPdu pdu;
  for (std::size_t size = 0; size < payload.size(); ++size) {
    const Bytes prefix(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(SvPdu::parseInto(prefix, pdu)) << size;
  }
  EXPECT_TRUE(SvPdu::parseInto(payload, pdu));
}

TEST(SvPdu, AsdusAreBoundedAndASteadyFlowAllocatesNothing) {
  const std::string shortest = "80 00 82 00 83 00 85 00 87 00";
  const Bytes many = payloadOf(std::vector<std::string>(SvPdu::kMaxAsdus + 1, shortest));
  const Bytes one = payloadOf({full()});
  SvPdu pdu;
  ASSERT_TRUE(SvPdu::parseInto(many, pdu));
  EXPECT_EQ(pdu.asdus.size(), SvPdu::kMaxAsdus);
  const std::size_t before = allocationCount();
  for (const Bytes& payload : {std::cref(one), std::cref(many), std::cref(one)}) {
    ASSERT_TRUE(SvPdu::parseInto(payload, pdu));
  }
  EXPECT_EQ(allocationCount(), before);
  EXPECT_EQ(pdu.asdus.size(), 1U);
}

}  // namespace
}  // namespace tarnlink::test
