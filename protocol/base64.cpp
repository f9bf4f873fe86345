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

std::uint8_t digit(char c) {
  return kDigits[static_cast<unsigned char>(c)];
}

/// Reads `count` characters as one number, padded to four characters with zero bits.
bool readGroup(const char* group, std::size_t count, std::uint32_t& bits) {
  bits = 0;
  std::uint8_t seen = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const std::uint8_t value = i < count ? digit(group[i]) : 0;
    seen |= value;
    bits = bits << 6 | value;
  }
  return seen < 64;
}

void appendOctets(std::uint32_t bits, std::size_t count, goosestack::Bytes& out) {
  for (std::size_t i = 0; i < count; ++i) {
    out.push_back(static_cast<std::uint8_t>(bits >> (16 - 8 * i)));
  }
}

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
  goosestack::Bytes octets;
  if (text.empty()) return octets;
  std::size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == kPadding) ++padding;
  octets.reserve(text.size() / 4 * 3);

  std::uint32_t bits = 0;
  const std::size_t last = text.size() - 4;
  for (std::size_t at = 0; at < last; at += 4) {
    if (!readGroup(text.data() + at, 4, bits)) return {};
    appendOctets(bits, 3, octets);
  }
  if (!readGroup(text.data() + last, 4 - padding, bits)) return {};
  const std::uint32_t unused = (1U << (8 * padding)) - 1;
  if ((bits & unused) != 0) return {};
  appendOctets(bits, 3 - padding, octets);
  return octets;
}

}  // namespace tarnlink
