#include "goosestack/utf8.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

// Behind ASCII of every length, so that the character starts at each place of a word.
void expectValid(const char* octets, bool valid) {
  for (std::size_t ascii = 0; ascii < 17; ++ascii) {
    Bytes text(ascii, 'a');
    const Bytes tail = hexBytes(octets);
    text.insert(text.end(), tail.begin(), tail.end());
    EXPECT_EQ(isValidUtf8(text), valid) << octets << " behind " << ascii;
  }
}

TEST(Utf8, AcceptsExactlyTheWellFormedOctets) {
  for (const char* octets : {"", "41 00 7F", "C2 80", "DF BF", "E0 A0 80", "ED 9F BF", "EE 80 80",
                             "EF BF BF", "F0 90 80 80", "F4 8F BF BF"}) {
    expectValid(octets, true);
  }
  // A continuation without a lead; overlong forms; a surrogate; above U+10FFFF; no continuation;
  // truncated characters.
  for (const char* octets :
       {"80", "C0 80", "C1 BF", "E0 9F BF", "F0 8F BF BF", "ED A0 80", "F4 90 80 80", "F5 80 80 80",
        "FF", "C3 41", "E2 82 41", "F0 9F 98 41", "C3", "E2 82", "F0 9F 98"}) {
    expectValid(octets, false);
  }
}

}  // namespace
}  // namespace tarnlink::test
