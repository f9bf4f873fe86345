#include "protocol/base64.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace tarnlink {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';

// Two characters for every 12 bits, so that three octets take two look-ups.
constexpr auto kPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 63]};
  return pairs;
}();

constexpr std::uint8_t kNoDigit = 0xFF;
constexpr auto kDigits = [] {
  std::array<std::uint8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (std::uint8_t i = 0; i < 64; ++i) digits[static_cast<unsigned char>(kAlphabet[i])] = i;
  return digits;
}();

}  // namespace

char* writeBase64(goosestack::ByteView octets, char* out) {
  const std::uint8_t* from = octets.data();
  std::size_t left = octets.size();
  for (; left >= 3; left -= 3, from += 3, out += 4) {
    const std::uint32_t bits = std::uint32_t{from[0]} << 16 | std::uint32_t{from[1]} << 8 | from[2];
    std::memcpy(out, kPairs[bits >> 12].data(), 2);
    std::memcpy(out + 2, kPairs[bits & 0xFFF].data(), 2);
  }
  if (left == 0) return out;
  const std::uint32_t bits =
      std::uint32_t{from[0]} << 16 | (left == 2 ? std::uint32_t{from[1]} << 8 : 0U);
  std::memcpy(out, kPairs[bits >> 12].data(), 2);
  out[2] = left == 2 ? kAlphabet[bits >> 6 & 63] : kPadding;
  out[3] = kPadding;
  return out + 4;
}

std::optional<goosestack::Bytes> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return {};
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with(kPadding) ? 1 : 0;
  goosestack::Bytes octets;
  octets.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  unsigned waiting = 0;  // Bits that are no whole octet yet.
  for (const char c : text.substr(0, text.size() - padding)) {
    const std::uint8_t digit = kDigits[static_cast<unsigned char>(c)];
    if (digit == kNoDigit) return {};
    bits = bits << 6 | digit;
    waiting += 6;
    if (waiting < 8) continue;
    waiting -= 8;
    octets.push_back(static_cast<std::uint8_t>(bits >> waiting));
  }
  const std::uint32_t unused = (1U << waiting) - 1;
  if ((bits & unused) != 0) return {};
  return octets;
}

}  // namespace tarnlink
