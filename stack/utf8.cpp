#include "goosestack/utf8.h"

#include <cstddef>
#include <cstring>

namespace goosestack {
namespace {

constexpr std::uint64_t kTopBits = 0x8080808080808080;

template <class Word>
Word wordAt(ByteView octets, std::size_t at) {
  Word word;
  std::memcpy(&word, octets.data() + at, sizeof word);
  return word;
}

/// In words, of which the last two overlap.
template <class Word>
bool isAscii(ByteView octets) {
  const std::size_t last = octets.size() - sizeof(Word);
  auto seen = wordAt<Word>(octets, last);
  for (std::size_t at = 0; at < last; at += sizeof(Word)) seen |= wordAt<Word>(octets, at);
  return (seen & static_cast<Word>(kTopBits)) == 0;
}

bool isAscii(ByteView octets) {
  if (octets.size() >= sizeof(std::uint64_t)) return isAscii<std::uint64_t>(octets);
  if (octets.size() >= sizeof(std::uint32_t)) return isAscii<std::uint32_t>(octets);
  return octets.empty() || isAscii<std::uint8_t>(octets);
}

bool isContinuation(std::uint8_t octet) {
  return (octet & 0xC0) == 0x80;
}

/// Octets of the character at the start (RFC 3629, section 4); 0 when it is malformed.
std::size_t characterLength(ByteView octets) {
  const std::uint8_t lead = octets[0];
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  std::uint8_t secondMin = 0x80;  // The bounds on the second octet exclude overlong forms,
  std::uint8_t secondMax = 0xBF;  // surrogates and what lies above U+10FFFF.
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) secondMin = 0xA0;
    if (lead == 0xED) secondMax = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) secondMin = 0x90;
    if (lead == 0xF4) secondMax = 0x8F;
  } else {
    return 0;
  }
  if (octets.size() < length || octets[1] < secondMin || octets[1] > secondMax) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!isContinuation(octets[i])) return 0;
  }
  return length;
}

}  // namespace

bool isValidUtf8(ByteView octets) {
  // Names on the process bus are ASCII nearly always.
  if (isAscii(octets)) return true;
  ByteView rest = octets;
  while (!rest.empty()) {
    const std::size_t length = characterLength(rest);
    if (length == 0) return false;
    rest = rest.subspan(length);
  }
  return true;
}

}  // namespace goosestack
