#include "protocol/json_writer.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "protocol/json.h"

namespace tarnlink {
namespace {

TEST(JsonWriterTest, StringsAreEscapedAndReadBackTheSame) {
  const std::pair<std::string, std::string> cases[] = {
      {"", R"("")"},
      {"IED1LD0/LLN0$GO$gcb01", R"("IED1LD0/LLN0$GO$gcb01")"},
      {"a\"b", R"("a\"b")"},
      {"back\\slash after a clean run", R"("back\\slash after a clean run")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string("\0\x1F", 2), R"("\u0000\u001f")"},
      {"\x7F", "\"\x7F\""},
      {"Ger\u00e4t \u2014 \U0001F600", "\"Ger\u00e4t \u2014 \U0001F600\""}};
  for (const auto& [text, written] : cases) {
    JsonWriter out(0, 1);
    out.string(text);
    EXPECT_EQ(out.text(), written);
    EXPECT_FALSE(out.failed());
  }
}

// One special character at every place of texts around the width of the scan.
TEST(JsonWriterTest, SpecialCharacterIsFoundAtEveryPlace) {
  for (const std::string special : {"\"", "\\", "\x1F", "\n", "\u00e4"}) {
    for (std::size_t length = 0; length < 40; ++length) {
      for (std::size_t place = 0; place <= length; ++place) {
        std::string text(length, 'x');
        text.insert(place, special);
        JsonWriter out(10, 1);
        out.literal("{\"a\":");
        out.string(text);
        out.literal("}");
        const auto object = parseJson(out.text());
        ASSERT_TRUE(object) << out.text();
        ASSERT_EQ(*findString(*object, "a"), text);
      }
    }
  }
}

TEST(JsonWriterTest, TextThatIsNotUtf8Fails) {
  for (const std::string text : {"\x80", "abcdefgh\xFF", "\xC0\x80", "\xED\xA0\x80", "\xE2\x82"}) {
    JsonWriter out;
    out.string(text);
    EXPECT_TRUE(out.failed());
  }
}

TEST(JsonWriterTest, DoublesReadBackBitForBit) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20'000; ++i) {
    const auto value = std::bit_cast<double>(random());
    JsonWriter out;
    out.literal("{\"a\":");
    out.number(value);
    out.literal("}");
    ASSERT_EQ(out.failed(), !std::isfinite(value));
    if (out.failed()) continue;
    const auto object = parseJson(out.text());
    ASSERT_TRUE(object) << out.text();
    ASSERT_EQ(std::bit_cast<std::uint64_t>(findNumber(*object, "a").value()),
              std::bit_cast<std::uint64_t>(value))
        << out.text();
  }
}

}  // namespace
}  // namespace tarnlink
