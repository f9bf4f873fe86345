// Random GOOSE datasets from a seed, alike on every system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "goosestack/goose_data_value.h"

namespace tarnlink::fuzz {

/// Makes values whose encoded form decodes to the same: every kind but `realDouble` and `unknown`,
/// times in steps that a double holds.
class RandomGoose {
 public:
  explicit RandomGoose(std::uint32_t seed) : random_(seed) {}

  std::uint32_t number() { return static_cast<std::uint32_t>(random_()) >> below(32); }
  bool flag() { return below(2) != 0; }
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_()) % limit; }

  /// Mostly short; now and then around the lengths where the length octets grow.
  std::size_t length() {
    constexpr std::size_t kEdges[] = {0, 1, 126, 127, 128, 129, 254, 255, 256, 257};
    return below(16) == 0 ? kEdges[below(std::size(kEdges))] : below(24);
  }

  std::string text() {
    constexpr const char* kPieces[] = {"A",    "$GO$", "\"", "\\", "\n",
                                       "\x01", "\x7F", "ä",  "€",  "😀"};
    std::string text;
    for (std::size_t left = length(); left > 0; --left) text += kPieces[below(std::size(kPieces))];
    return text;
  }

  goosestack::TimePoint time() {
    return goosestack::timeFromUnixSeconds(number() + below(1 << 21) / 2097152.0);
  }

  std::vector<goosestack::GooseDataValue> values(int depth) {
    std::vector<goosestack::GooseDataValue> values(below(depth > 3 ? 12 : 4));
    for (goosestack::GooseDataValue& value : values) value = this->value(depth);
    return values;
  }

  /// Of any kind; `depth` levels of structures and arrays at most.
  goosestack::GooseDataValue value(int depth) {
    using Value = goosestack::GooseDataValue;
    switch (below(depth > 0 ? 10 : 8)) {
      case 0:
        return Value::boolean(flag());
      case 1:
        return Value::bitString(bits());
      case 2:
        return Value::integer(static_cast<std::int32_t>(random_()) >> below(32));
      case 3:
        return Value::unsignedInteger(number());
      case 4:
        return Value::floatingPoint(std::bit_cast<float>(static_cast<std::uint32_t>(random_())));
      case 5:
        return Value::octetString(octets());
      case 6:
        return Value::visibleString(text());
      case 7:
        return Value::utcTime(time());
      case 8:
        return Value::structure(values(depth - 1));
      default:
        return Value::array(values(depth - 1));
    }
  }

 private:
  goosestack::BitString bits() {
    goosestack::BitString bits;
    for (std::size_t left = length(); left > 0; --left) bits.push_back(flag());
    return bits;
  }

  goosestack::Bytes octets() {
    goosestack::Bytes octets(length());
    for (std::uint8_t& octet : octets) octet = static_cast<std::uint8_t>(random_());
    return octets;
  }

  std::mt19937 random_;
};

}  // namespace tarnlink::fuzz
