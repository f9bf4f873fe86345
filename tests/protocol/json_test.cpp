#include "protocol/json.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>

namespace tarnlink {
namespace {

std::string nested(std::size_t depth) {
  return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST(JsonTest, TextsBeyondTheLimitsAreRefused) {
  EXPECT_TRUE(parseJson(nested(kMaxJsonNesting)));
  for (const std::string& text :
       {nested(kMaxJsonNesting + 1), std::string(1 << 20, '['), std::string("{}\0", 3),
        std::string("{\"a\":\"\xED\xA0\x80\"}")}) {
    EXPECT_FALSE(parseJson(text)) << text.substr(0, 80);
  }
}

TEST(JsonTest, MembersAreFoundByNameAndType) {
  const Json tree = parseJson(R"({"a":1,"b":[{"c":"x"},[],null],"a":"y","d":true})").value();
  EXPECT_EQ(*findString(tree, "a"), "y");
  EXPECT_EQ(findArray(tree, "b")->size(), 3U);
  EXPECT_EQ(*findString(tree["b"][0], "c"), "x");
  EXPECT_EQ(findBoolean(tree, "d"), true);
  EXPECT_EQ(findMember(tree["b"][1], "c"), nullptr);
  EXPECT_FALSE(findInteger(tree, "a") || findNumber(tree, "d") || findString(tree, "e"));
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
      {"-0", 0, -0.0}, {"100.0", 100, 100.0}, {"-7", -7, -7.0}, {"1.5", {}, 1.5},
      {"9223372036854775807", kMax, 0x1p63}, {"9223372036854775808", {}, 0x1p63},
      {"-9223372036854775808", kMin, -0x1p63}, {"-9223372036854775808.0", kMin, -0x1p63},
      {"-9.3e18", {}, -9.3e18}, {"9007199254740993", 9007199254740993, 9007199254740992.0}};
  // clang-format on
  for (const auto& [token, integer, real] : cases) {
    const Json tree = parseJson("{\"a\":" + token + "}").value();
    EXPECT_EQ(findInteger(tree, "a"), integer) << token;
    // As bits: zeros have signs.
    const double read = findNumber(tree, "a").value();
    EXPECT_EQ(std::bit_cast<std::uint64_t>(read), std::bit_cast<std::uint64_t>(real)) << token;
  }
}

}  // namespace
}  // namespace tarnlink
