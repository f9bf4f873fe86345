#include "protocol/json_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/json.h"

namespace tarnlink {
namespace {

// One special character at every place of texts around the width of the scan.
TEST(JsonWriterTest, StringsAreWrittenAsTheLibraryWritesThem) {
  std::vector<std::string> specials{"", "\"", "\\", "/", "\x7F", "\u00e4", "\U0001F600"};
  for (char c = 0; c < 0x20; ++c) specials.emplace_back(1, c);
  for (const std::string& special : specials) {
    for (std::size_t length = 0; length < 36; ++length) {
      for (std::size_t place = 0; place <= length; ++place) {
        const std::string text = std::string(length, 'x').insert(place, special);
        JsonWriter out(10, 1);
        out.string(text);
        ASSERT_EQ(out.text(), Json(text).dump());
      }
    }
  }
}

}  // namespace
}  // namespace tarnlink
