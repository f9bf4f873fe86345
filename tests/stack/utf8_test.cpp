#include "stack/utf8.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

TEST(Utf8, AcceptsExactlyTheWellFormedOctets) {
  struct Case {
    const char* octets;
    bool valid;
  };
  const Case cases[] = {
      {"", true},
      {"41 00 7F", true},
      {"C2 80", true},
      {"DF BF", true},
      {"E0 A0 80", true},
      {"ED 9F BF", true},
      {"EE 80 80", true},
      {"EF BF BF", true},
      {"F0 90 80 80", true},
      {"F4 8F BF BF", true},
      {"80", false},           // Continuation without a lead.
      {"C0 80", false},        // Overlong.
      {"C1 BF", false},        // Overlong.
      {"E0 9F BF", false},     // Overlong.
      {"F0 8F BF BF", false},  // Overlong.
      {"ED A0 80", false},     // Surrogate.
      {"F4 90 80 80", false},  // Above U+10FFFF.
      {"F5 80 80 80", false},
      {"FF", false},
      {"C3 41", false},
      {"E2 82 41", false},
      {"F0 9F 98 41", false},
      {"C3", false},        // Truncated.
      {"E2 82", false},     // Truncated.
      {"F0 9F 98", false},  // Truncated.
  };
  for (const auto& [octets, valid] : cases) {
    SCOPED_TRACE(octets);
    // Behind ASCII of every length, so that the character starts at each place of a word.
    for (std::size_t ascii = 0; ascii < 17; ++ascii) {
      Bytes text(ascii, 'a');
      const Bytes tail = hexBytes(octets);
      text.insert(text.end(), tail.begin(), tail.end());
      EXPECT_EQ(isValidUtf8(text), valid) << "behind " << ascii;
    }
  }
}

}  // namespace
}  // namespace tarnlink::test
