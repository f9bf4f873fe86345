#include "tools/common/hex_text.h"

#include <charconv>

namespace tarnlink {

std::string hexText(goosestack::ByteView octets) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * octets.size());
  for (const std::uint8_t octet : octets) {
    text += kDigits[octet >> 4];
    text += kDigits[octet & 0x0F];
  }
  return text;
}

std::optional<goosestack::Bytes> parseHex(std::string_view text) {
  if (text.size() % 2 != 0) return {};
  goosestack::Bytes octets(text.size() / 2);
  for (std::size_t i = 0; i < octets.size(); ++i) {
    const char* begin = text.data() + 2 * i;
    const auto [end, error] = std::from_chars(begin, begin + 2, octets[i], 16);
    if (error != std::errc() || end != begin + 2) return {};
  }
  return octets;
}

}  // namespace tarnlink
