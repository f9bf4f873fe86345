#include "stack/mac_address.h"

namespace tarnlink {

std::string formatMac(ByteView octets) {
  std::string text;
  formatMacInto(octets, text);
  return text;
}

void formatMacInto(ByteView octets, std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  text.resize(octets.empty() ? 0 : octets.size() * 3 - 1);
  std::size_t at = 0;
  for (const std::uint8_t octet : octets) {
    if (at != 0) text[at++] = ':';
    text[at++] = kDigits[octet >> 4];
    text[at++] = kDigits[octet & 0x0F];
  }
}

}  // namespace tarnlink
