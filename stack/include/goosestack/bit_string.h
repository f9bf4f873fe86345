// Bits as a BER BIT STRING carries them (X.690, 8.6): eight to the octet, the first bit on top.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "goosestack/bytes.h"
#include "goosestack/footprint.h"

namespace goosestack {

/// A plain sequence of bits that is read from the wire and written to it octet by octet: a frame
/// can hold half a million of them.
class BitString {
 public:
  BitString() = default;
  BitString(std::size_t count, bool value) {
    octets_.assign((count + 7) / 8, value ? 0xFF : 0x00);
    trim(count);
  }
  BitString(std::initializer_list<bool> bits) {
    for (const bool bit : bits) push_back(bit);
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool operator[](std::size_t at) const { return (octets_[at / 8] & maskOf(at)) != 0; }

  void reserve(std::size_t count) { octets_.reserve((count + 7) / 8); }
  void push_back(bool bit) {
    if (size_ % 8 == 0) octets_.push_back(0);
    if (bit) octets_.back() |= maskOf(size_);
    ++size_;
  }

  /// Octets of storage behind this object.
  std::size_t heapOctets() const { return goosestack::heapOctets(octets_); }

  /// All bits; those behind the last one are 0.
  ByteView octets() const { return octets_; }
  /// Takes the first `count` bits of `octets`, which has no fewer.
  void assign(ByteView octets, std::size_t count) {
    const ByteView used = octets.first((count + 7) / 8);
    octets_.assign(used.begin(), used.end());
    trim(count);
  }

  bool operator==(const BitString&) const = default;

 private:
  static std::uint8_t maskOf(std::size_t at) { return static_cast<std::uint8_t>(0x80 >> (at % 8)); }
  void trim(std::size_t count) {
    size_ = count;
    if (count % 8 != 0) octets_.back() &= static_cast<std::uint8_t>(0xFF00 >> (count % 8));
  }

  Bytes octets_;
  std::size_t size_ = 0;
};

}  // namespace goosestack
