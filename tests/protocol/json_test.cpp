#include "protocol/json.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace tarnlink {
namespace {

std::string nested(std::size_t depth) {
  return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST(JsonTest, TextsBeyondTheLimitsAreRefused) {
  EXPECT_TRUE(parseJson(nested(kMaxJsonNesting)));
  const std::string no = "no JSON object";
  const std::pair<std::string, std::string> cases[] = {
      {nested(kMaxJsonNesting + 1), no},
      {std::string(1 << 20, '['), no},
      {"", no},
      {"{\"a\":1} x", no},
      {std::string("{}\0", 3), no},
      {"{\"a\":\"\xED\xA0\x80\"}", no},
      {R"({"a":-1e400})", "a number beyond the largest double"}};
  for (const auto& [text, reason] : cases) {
    const auto tree = parseJson(text);
    ASSERT_FALSE(tree) << text.substr(0, 80);
    EXPECT_EQ(tree.error().reason(), reason) << text.substr(0, 80);
  }
}

TEST(JsonTest, MembersAreFoundByNameAndType) {
  const Json tree = parseJson(R"({"a":1,"b":[{"c":"x"},[],null],"a":"y","d":true})").value();
  EXPECT_EQ(findInteger(tree, "a"), std::nullopt);
  EXPECT_EQ(*findString(tree, "a"), "y");
  EXPECT_EQ(findArray(tree, "b")->size(), 3U);
  EXPECT_EQ(*findString(tree["b"][0], "c"), "x");
  EXPECT_EQ(findBoolean(tree, "d"), true);
  EXPECT_EQ(findMember(tree["b"][1], "c"), nullptr);
  EXPECT_FALSE(findBoolean(tree, "a") || findNumber(tree, "d") || findString(tree, "e"));
}

TEST(JsonTest, AMillionOctetsOfKeysAreNotComparedWithEachOther) {
  std::string text = "{";
  for (int i = 0; i < 100'000; ++i) text += "\"" + std::to_string(i) + "\":1,";
  text.back() = '}';
  EXPECT_EQ(parseJson(text)->size(), 100'000U);
}

TEST(JsonTest, NumbersAreClassifiedByWhatTheyFit) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  struct Case {
    std::string token;
    std::optional<std::int64_t> integer;
    double real;
  };
  // clang-format off
  const Case cases[] = {
      {"0", 0, 0.0}, {"-0", 0, -0.0}, {"100.0", 100, 100.0}, {"1e2", 100, 100.0}, {"-7", -7, -7.0},
      {"1.5", {}, 1.5}, {"9223372036854775807", kMax, 0x1p63}, {"9223372036854775808", {}, 0x1p63},
      {"-9223372036854775808", kMin, -0x1p63}, {"-9223372036854775809.0", kMin, -0x1p63},
      {"-1e19", {}, -1e19}, {"9007199254740993", 9007199254740993, 9007199254740992.0},
      {"123456789012345678901234567890", {}, 123456789012345678901234567890.0},
      {"5e-324", {}, 5e-324}, {"2.2250738585072011e-308", {}, 2.2250738585072011e-308}};
  // clang-format on
  for (const auto& [token, integer, real] : cases) {
    const Json tree = parseJson("{\"a\":" + token + "}").value();
    EXPECT_EQ(findInteger(tree, "a"), integer) << token;
    // As bits: zeros have signs.
    EXPECT_EQ(std::bit_cast<std::uint64_t>(findNumber(tree, "a").value()),
              std::bit_cast<std::uint64_t>(real))
        << token;
  }
}

}  // namespace
}  // namespace tarnlink
