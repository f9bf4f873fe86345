#include "ber/ber_reader.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using Octets = std::vector<std::uint8_t>;

Octets copyOf(std::span<const std::uint8_t> octets) {
  return {octets.begin(), octets.end()};
}

TEST(BerReader, LengthForms) {
  struct Case {
    const char* octets;
    std::optional<BerLength> expected;
  };
  const Case cases[] = {
      {"7F", BerLength{127, 1}},
      {"81 80", BerLength{128, 2}},
      {"82 01 00", BerLength{256, 3}},
      {"82 00 05", BerLength{5, 3}},
      {"8A 00 00 00 00 00 00 00 00 00 05", BerLength{5, 11}},
      {"88 7F FF FF FF FF FF FF FF", BerLength{0x7FFFFFFFFFFFFFFF, 9}},
      {"88 80 00 00 00 00 00 00 00", std::nullopt},
      {"89 01 00 00 00 00 00 00 00 00", std::nullopt},
      {"80", std::nullopt},
      {"81", std::nullopt},
      {"82 01", std::nullopt},
      {"FF 01", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [octets, expected] : cases) {
    SCOPED_TRACE(octets);
    EXPECT_EQ(parseBerLength(hexBytes(octets), 0), expected);
  }
}

TEST(BerReader, ElementInsideABuffer) {
  const Octets buffer = hexBytes("FF 9F 81 02 41 42 00");
  const auto element = BerTlv::parse(buffer, 1);
  ASSERT_TRUE(element);
  EXPECT_EQ(element->tag, 0x9F);  // A tag number of 31 does not go on.
  EXPECT_EQ(copyOf(element->tagBytes), hexBytes("9F"));
  EXPECT_EQ(copyOf(element->value), hexBytes("41 42"));
  EXPECT_EQ(element->totalBytes, 5U);
  EXPECT_FALSE(BerTlv::parse(buffer, buffer.size()));
  EXPECT_FALSE(BerTlv::parse(buffer, buffer.size() + 5));
}

TEST(BerReader, EveryTruncatedPrefixOfAnElementIsNothing) {
  for (const char* text : {"84 00", "80 01 41", "30 82 00 03 01 02 03", "61 81 02 41 42"}) {
    const Octets whole = hexBytes(text);
    ASSERT_TRUE(BerTlv::parse(whole, 0)) << text;
    for (std::size_t length = 0; length < whole.size(); ++length) {
      EXPECT_FALSE(BerTlv::parse(std::span(whole).first(length), 0)) << text << " at " << length;
    }
  }
}

TEST(BerReader, LengthNearTheLargestIntegerDoesNotWrapAround) {
  EXPECT_FALSE(BerTlv::parse(hexBytes("80 88 7F FF FF FF FF FF FF FF 41"), 0));
}

TEST(BerReader, FirstMalformedElementEndsTheSequence) {
  struct Case {
    const char* octets;
    std::vector<std::uint8_t> tags;
  };
  const Case cases[] = {
      {"", {}},
      {"84 00", {0x84}},
      {"80 01 41 81 05 01 02", {0x80}},
      {"80 01 41 81 80 82 00", {0x80}},
      {"80 01 41 81 00 82 01 FF", {0x80, 0x81, 0x82}},
      {"80 01 41 81", {0x80}},
  };
  for (const auto& [octets, tags] : cases) {
    SCOPED_TRACE(octets);
    const Octets buffer = hexBytes(octets);
    std::vector<std::uint8_t> seen;
    for (const BerTlv& element : BerTlv::parseAll(buffer)) seen.push_back(element.tag);
    EXPECT_EQ(seen, tags);
  }
}

TEST(BerReader, SequenceStaysAtItsEnd) {
  const Octets buffer = hexBytes("81 05 01 82 00");
  BerSequence sequence(buffer);
  EXPECT_FALSE(sequence.next());
  EXPECT_FALSE(sequence.next());
}

}  // namespace
}  // namespace tarnlink::test
