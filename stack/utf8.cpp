#include "stack/utf8.h"

#include <cstddef>
#include <cstring>

namespace tarnlink {
namespace {

constexpr std::uint64_t kTopBits = 0x8080808080808080;

/// Octets at the start that are ASCII, counted in whole words.
std::size_t asciiWords(ByteView octets) {
  std::size_t at = 0;
  for (; octets.size() - at >= sizeof(std::uint64_t); at += sizeof(std::uint64_t)) {
    std::uint64_t word;
    std::memcpy(&word, octets.data() + at, sizeof word);
    if ((word & kTopBits) != 0) break;
  }
  return at;
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
  // Names on the process bus are ASCII nearly always; only what is left goes octet by octet.
  ByteView rest = octets.subspan(asciiWords(octets));
  while (!rest.empty()) {
    const std::size_t length = characterLength(rest);
    if (length == 0) return false;
    rest = rest.subspan(length);
  }
  return true;
}

}  // namespace tarnlink
