#include "protocol/json_value.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink {
namespace {

using namespace std::string_view_literals;

std::string nested(std::size_t depth) {
  return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

// One document a gap of two blanks or more; none of them is well-formed.
constexpr std::string_view kMalformed = R"~(
  1  "a"  []  null  [{}]  {  }  {}}  {}{}  {} x  {},  {"a":1,}  {,"a":1}  {"a":1,,"b":2}  {"a":[1,]}
  {"a":[,1]}  {"a" 1}  {"a"::1}  {"a":}  {"a"}  {"a":1 "b":2}  {"a":1 2}  {1:2}  {a:1}  {'a':1}
  {"a":'b'}  {"a" "b":1}  {"a":"b" "c"}  {"a":[1 2]}  {"a":[1:2]}  {"a":["b":2]}  {"a":[}  {"a":{]}
  {"a":[1}  {"a":{}  {"a":{"b":}  {"a":[{}}  {"a":1]}  {"a":1  {"a":nul}  {"a":nullx}  {"a":True}
  {"a":tru e}  {"a":false1}  {"a":NaN}  {"a":Infinity}  {"a":-}  {"a":+1}  {"a":01}  {"a":-01}
  {"a":1.}  {"a":.5}  {"a":1e}  {"a":1e+}  {"a":1.e5}  {"a":0x10}  {"a":1_0}  {"a":--1}  {"a":1-}
  {"a":1e5.5}  {"a":"b  {"a":"b\"}  {"a":"\x"}  {"a":"\u12"}  {"a":"\u12G4"}  {"a":"\uD800"}
  {"a":"\uD800x"}  {"a":"\uD800\n"}  {"a":"\uD800\uD800"}  {"a":"\uDC00"}  {"\uDC00":1}  {"\q":1}
  {"a":1/*c*/}  {"a":1}//c)~";

std::vector<std::string> splitAtGaps(std::string_view text) {
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool gap = text[i] == '\n' || text.substr(i, 2) == "  ";
    if (!gap) {
      parts.back() += text[i];
      continue;
    }
    while (i + 1 < text.size() && text[i + 1] == ' ') ++i;
    parts.emplace_back();
  }
  return parts;
}

TEST(JsonValueTest, MalformedDocumentsAreRefused) {
  std::vector<std::string> documents = splitAtGaps(kMalformed);
  ASSERT_EQ(documents.front(), "");
  for (const std::string_view octets : {"\n"sv, "\x01"sv, "\0"sv, "\x80"sv, "\xC0\x80"sv,
                                        "\xED\xA0\x80"sv, "\xF4\x90\x80\x80"sv, "\xC3"sv}) {
    documents.push_back("{\"a\":\"" + std::string(octets) + "\"}");
    documents.push_back("{\"" + std::string(octets) + "\":1}");
    documents.push_back("{\"a\":1" + std::string(octets) + "2}");
  }
  documents.insert(documents.end(),
                   {" ", "\xEF\xBB\xBF{}", std::string("{}\0", 3), "{\"a\":\f1}", "{\"a\":1\v}",
                    nested(kMaxJsonNesting + 1), nested(100'000), std::string(100'000, '{'),
                    "{\"a\":" + std::string(100'000, '[')});
  for (const std::string& document : documents) {
    EXPECT_FALSE(parseJsonObject(document)) << document.substr(0, 80);
  }
}

TEST(JsonValueTest, WellFormedDocumentsKeepEveryPart) {
  EXPECT_TRUE(parseJsonObject(nested(kMaxJsonNesting)));
  EXPECT_TRUE(parseJsonObject("{}")->empty());
  const auto object = parseJsonObject(
      " {\t\"a\\u00e9\\n\" : \"\\ud83d\\ude00\\u0000\\/\" ,\r\n\"b\":[true,false,null,[ ],{ }, "
      "-1.5 ]} ");
  ASSERT_TRUE(object);
  ASSERT_NE(object->string("a\u00e9\n"), nullptr);
  EXPECT_EQ(*object->string("a\u00e9\n"), std::string("\U0001F600\0/", 6));
  const JsonArray& list = *object->array("b");
  ASSERT_EQ(list.size(), 6U);
  EXPECT_TRUE(*list[0].as<bool>());
  EXPECT_FALSE(*list[1].as<bool>());
  EXPECT_NE(list[2].as<std::monostate>(), nullptr);
  EXPECT_TRUE(list[3].as<JsonArray>()->empty());
  EXPECT_TRUE(list[4].as<JsonObject>()->empty());
  EXPECT_EQ(list[5].as<JsonNumber>()->real, -1.5);
}

TEST(JsonValueTest, DocumentLargerThanTheKeptStorageIsParsedWhole) {
  const std::string text(300'000, 'x');
  const auto object = parseJsonObject("{\"a\":\"" + text + "\",\"b\":7}");
  ASSERT_TRUE(object);
  EXPECT_EQ(*object->string("a"), text);
  EXPECT_EQ(object->integer("b"), 7);
}

TEST(JsonValueTest, LastOfSeveralMembersOfOneNameCounts) {
  const auto object = parseJsonObject(R"({"a":1,"b":2,"a":"x"})");
  EXPECT_EQ(object->integer("a"), std::nullopt);
  EXPECT_EQ(*object->string("a"), "x");
}

TEST(JsonValueTest, NumbersAreClassifiedByWhatTheyFit) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  struct Case {
    std::string token;
    std::optional<std::int64_t> integer;
    std::optional<double> real;
  };
  // clang-format off
  const Case cases[] = {
      {"0", 0, 0.0}, {"-0", 0, -0.0}, {"100.0", 100, 100.0}, {"1e2", 100, 100.0},
      {"1.5E+1", 15, 15.0}, {"1200e-2", 12, 12.0}, {"1.5", {}, 1.5}, {"1e-1", {}, 0.1},
      {"9223372036854775807", kMax, 0x1p63}, {"9223372036854775808", {}, 0x1p63},
      {"-9223372036854775808", kMin, -0x1p63}, {"-9223372036854775809", {}, -0x1p63},
      {"9223372036854775807.0", kMax, 0x1p63}, {"922337203685477580700e-2", kMax, 0x1p63},
      {"9007199254740993", 9007199254740993, 9007199254740992.0},
      {"1e19", {}, 1e19}, {"9999999999999999999", {}, 1e19},
      {"123456789012345678901234567890", {}, 123456789012345678901234567890.0},
      {"1e400", {}, {}}, {"-1e400", {}, {}}, {"1e99999999999999999999", {}, {}},
      {"1.7976931348623157e308", {}, std::numeric_limits<double>::max()},
      {"1.7976931348623159e308", {}, {}}, {"5e-324", {}, 5e-324}, {"1e-400", {}, 0.0},
      {"-1e-99999999999999999999", {}, -0.0}, {"0e99999999999999999999", 0, 0.0},
      {"0." + std::string(1000, '0') + "1e1001", 1, 1.0},
      {"1" + std::string(1000, '0') + "e-1000", 1, 1.0}};
  // clang-format on
  for (const auto& [token, integer, real] : cases) {
    SCOPED_TRACE(token.substr(0, 40));
    const auto object = parseJsonObject("{\"a\":" + token + " ,\"b\":1}");
    ASSERT_TRUE(object);
    EXPECT_EQ(object->integer("a"), integer);
    const auto number = object->number("a");
    ASSERT_EQ(number.has_value(), real.has_value());
    // As bits: zeros have signs.
    EXPECT_EQ(std::bit_cast<std::uint64_t>(number.value_or(0)),
              std::bit_cast<std::uint64_t>(real.value_or(0)));
    EXPECT_EQ(object->integer("b"), 1);
  }
}

}  // namespace
}  // namespace tarnlink
