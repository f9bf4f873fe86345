#include "goosestack/mac_address.h"

#include <cstring>

namespace goosestack {
namespace {

constexpr auto kHexPairs = [] {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::array<std::array<char, 2>, 256> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {kDigits[i >> 4], kDigits[i & 0x0F]};
  return pairs;
}();

}  // namespace

std::string formatMac(ByteView octets) {
  std::string text;
  formatMacInto(octets, text);
  return text;
}

void formatMacInto(ByteView octets, std::string& text) {
  text.resize(octets.empty() ? 0 : octets.size() * 3 - 1);
  char* at = text.data();
  for (std::size_t i = 0; i < octets.size(); ++i) {
    if (i != 0) *at++ = ':';
    std::memcpy(at, kHexPairs[octets[i]].data(), 2);
    at += 2;
  }
}

}  // namespace goosestack
