// A fast hash of octets with a seed: whoever does not know the seed cannot choose names that meet
// in one place of a table. No cryptographic one.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "goosestack/bytes.h"

namespace tarnlink {

/// Both halves of the 128-bit product, folded.
inline std::uint64_t hashMix(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a ^ 0x9E3779B97F4A7C15) * (b ^ 0xD6E8FEB86659FD93);
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

inline std::uint64_t hashOctets(const void* octets, std::size_t size, std::uint64_t seed) {
  const auto* at = static_cast<const std::uint8_t*>(octets);
  std::uint64_t hash = seed ^ size;
  std::uint64_t word = 0;
  if (size < sizeof word) {
    for (std::size_t i = 0; i < size; ++i) word = word << 8 | at[i];
    return hashMix(hash, word);
  }
  const auto* const last = at + size - sizeof word;
  for (; at < last; at += sizeof word) {
    std::memcpy(&word, at, sizeof word);
    hash = hashMix(hash, word);
  }
  // The last word overlaps the one before: cheaper than octet by octet.
  std::memcpy(&word, last, sizeof word);
  return hashMix(hash, word);
}

inline std::uint64_t hashOctets(goosestack::ByteView octets, std::uint64_t seed) {
  return hashOctets(octets.data(), octets.size(), seed);
}
inline std::uint64_t hashOctets(std::string_view text, std::uint64_t seed) {
  return hashOctets(text.data(), text.size(), seed);
}

}  // namespace tarnlink
