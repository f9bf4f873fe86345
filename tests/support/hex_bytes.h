// Octets from the way people write them: "84 02 04 A0".
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>
#include <vector>

namespace tarnlink::test {

/// Pairs of hexadecimal digits; spaces between them are ignored.
inline std::vector<std::uint8_t> hexBytes(std::string_view text) {
  std::vector<std::uint8_t> octets;
  while (text.size() >= 2) {
    if (text.front() == ' ') {
      text.remove_prefix(1);
      continue;
    }
    std::uint8_t octet = 0;
    std::from_chars(text.data(), text.data() + 2, octet, 16);
    octets.push_back(octet);
    text.remove_prefix(2);
  }
  return octets;
}

}  // namespace tarnlink::test
