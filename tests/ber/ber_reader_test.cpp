#include "ber/ber_reader.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

TEST(BerReader, LengthForms) {
  const std::pair<const char*, std::optional<BerLength>> cases[] = {
      {"7F", BerLength{127, 1}},
      {"81 80", BerLength{128, 2}},
      {"82 01 00", BerLength{256, 3}},
      {"8A 00 00 00 00 00 00 00 00 00 05", BerLength{5, 11}},
      {"88 7F FF FF FF FF FF FF FF", BerLength{0x7FFFFFFFFFFFFFFF, 9}},
      {"88 80 00 00 00 00 00 00 00", std::nullopt},
      {"89 01 00 00 00 00 00 00 00 00", std::nullopt},
      {"80", std::nullopt},
      {"81", std::nullopt},
      {"82 01", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [octets, expected] : cases) {
    EXPECT_EQ(parseBerLength(hexBytes(octets), 0), expected) << octets;
  }
}

TEST(BerReader, ElementInsideABuffer) {
  const auto buffer = hexBytes("FF 9F 81 02 41 42 00");
  const auto element = BerTlv::parse(buffer, 1);
  ASSERT_TRUE(element);
  EXPECT_EQ(element->tag, 0x9F);  // A tag number of 31 does not go on.
  EXPECT_EQ(element->tagBytes.data(), &buffer[1]);
  EXPECT_EQ(element->tagBytes.size(), 1U);
  EXPECT_EQ(element->value.data(), &buffer[4]);
  EXPECT_EQ(element->value.size(), 2U);
  EXPECT_EQ(element->totalBytes, 5U);
  EXPECT_FALSE(BerTlv::parse(buffer, buffer.size()));
  EXPECT_FALSE(BerTlv::parse(buffer, buffer.size() + 5));
}

TEST(BerReader, EveryTruncatedPrefixOfAnElementIsNothing) {
  for (const char* text : {"84 00", "80 01 41", "30 82 00 03 01 02 03", "61 81 02 41 42"}) {
    const auto whole = hexBytes(text);
    ASSERT_TRUE(BerTlv::parse(whole, 0)) << text;
    for (std::size_t length = 0; length < whole.size(); ++length) {
      EXPECT_FALSE(BerTlv::parse(std::span(whole).first(length), 0)) << text << " at " << length;
    }
  }
  // Nor does a length near the largest integer wrap around.
  EXPECT_FALSE(BerTlv::parse(hexBytes("80 88 7F FF FF FF FF FF FF FF 41"), 0));
}

TEST(BerReader, FirstMalformedElementEndsTheSequence) {
  const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
      {"", {}},
      {"80 01 41 81 05 01 02", {0x80}},
      {"80 01 41 81 80 82 00", {0x80}},
      {"80 01 41 81 00 82 01 FF", {0x80, 0x81, 0x82}},
  };
  for (const auto& [octets, tags] : cases) {
    const auto buffer = hexBytes(octets);
    std::vector<std::uint8_t> seen;
    BerSequence sequence(buffer);
    while (const auto element = sequence.next()) seen.push_back(element->tag);
    EXPECT_EQ(seen, tags) << octets;
    EXPECT_FALSE(sequence.next()) << "it stays at its end";
    EXPECT_EQ(BerTlv::parseAll(buffer).size(), tags.size()) << octets;
  }
}

}  // namespace
}  // namespace tarnlink::test
