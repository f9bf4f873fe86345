#include "ber/ber_writer.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Octets = std::vector<std::uint8_t>;

TEST(BerWriter, ShortestLength) {
  const std::pair<std::size_t, const char*> cases[] = {{0, "00"},         {127, "7F"},
                                                       {128, "81 80"},    {255, "81 FF"},
                                                       {256, "82 01 00"}, {65535, "82 FF FF"}};
  for (const auto& [length, expected] : cases) {
    Octets buffer;
    EXPECT_TRUE(appendBerLength(buffer, length));
    EXPECT_EQ(buffer, hexBytes(expected)) << length;
  }
}

TEST(BerWriter, ValueBeyondTwoLengthOctetsLeavesTheBufferAlone) {
  Octets buffer = hexBytes("01 02");
  EXPECT_FALSE(appendBerTLV(buffer, 0x80, Octets(kMaxBerValueLength + 1)));
  EXPECT_FALSE(appendBerLength(buffer, kMaxBerValueLength + 1));
  EXPECT_EQ(buffer, hexBytes("01 02"));
  EXPECT_TRUE(appendBerTLV(buffer, 0x80, Octets(kMaxBerValueLength)));
  EXPECT_EQ(buffer.size(), 2 + 4 + kMaxBerValueLength);
}

TEST(BerWriter, IntegersAreMinimal) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "02 01 00"},
      {-1, "02 01 FF"},
      {127, "02 01 7F"},
      {128, "02 02 00 80"},
      {-128, "02 01 80"},
      {-129, "02 02 FF 7F"},
      {256, "02 02 01 00"},
      {32768, "02 03 00 80 00"},
      {std::numeric_limits<std::int64_t>::max(), "02 08 7F FF FF FF FF FF FF FF"},
      {std::numeric_limits<std::int64_t>::min(), "02 08 80 00 00 00 00 00 00 00"},
  };
  for (const auto& [value, expected] : cases) {
    Octets buffer;
    appendBerInteger(buffer, value);
    EXPECT_EQ(buffer, hexBytes(expected)) << value;
  }
}

TEST(BerWriter, ObjectIdentifiers) {
  const std::pair<const char*, const char*> cases[] = {
      {"1.0.9506.2.1", "06 05 28 CA 22 02 01"},
      {"1..x.3.", "06 01 2B"},
      {"2.100.128.9223372036854775807", "06 0C B4 81 00 FF FF FF FF FF FF FF FF 7F"},
      {"6.15", "06 01 FF"},
      // Refused.
      {"6.16", ""},
      {"7.0", ""},
      {"1.9223372036854775807", ""},
      {"1.3.-6", ""},
      {"1.3.99999999999999999999", ""},
      {"1", ""},
      {"", ""},
  };
  for (const auto& [arcs, expected] : cases) {
    Octets buffer;
    EXPECT_EQ(appendBerOID(buffer, arcs), *expected != '\0') << arcs;
    EXPECT_EQ(buffer, hexBytes(expected)) << arcs;
  }
}

}  // namespace
}  // namespace tarnlink::test
