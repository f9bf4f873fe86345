// One member of a GOOSE dataset (IEC 61850-8-1, MMS Data).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "goosestack/bit_string.h"
#include "goosestack/bytes.h"
#include "goosestack/flutter_dict.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// A plain value, copied on assignment. `structure` and `array` nest.
struct GooseDataValue {
  using BitString = goosestack::BitString;
  struct Structure {
    std::vector<GooseDataValue> members;
    bool operator==(const Structure&) const;
  };
  struct Array {
    std::vector<GooseDataValue> members;
    bool operator==(const Array&) const;
  };
  /// A data element of a tag that the stack does not interpret. Decoding alone produces it;
  /// encoding leaves it out.
  struct Unknown {
    std::uint8_t tag = 0;
    Bytes data;
    bool operator==(const Unknown&) const = default;
  };

  /// The cases, in the order of the payload's alternatives.
  enum class Kind : std::uint8_t {
    boolean,
    bitString,
    integer,
    unsignedInteger,
    floatingPoint,
    realDouble,
    octetString,
    visibleString,
    utcTime,
    structure,
    array,
    unknown,
  };
  using Payload = std::variant<bool, BitString, std::int32_t, std::uint32_t, float, double, Bytes,
                               std::string, TimePoint, Structure, Array, Unknown>;

  Payload payload{false};

  Kind kind() const { return static_cast<Kind>(payload.index()); }

  static GooseDataValue boolean(bool value) { return {Payload(value)}; }
  static GooseDataValue bitString(BitString bits) { return {Payload(std::move(bits))}; }
  static GooseDataValue integer(std::int32_t value) { return {Payload(value)}; }
  static GooseDataValue unsignedInteger(std::uint32_t value) { return {Payload(value)}; }
  static GooseDataValue floatingPoint(float value) { return {Payload(value)}; }
  static GooseDataValue realDouble(double value) { return {Payload(value)}; }
  static GooseDataValue octetString(Bytes octets) { return {Payload(std::move(octets))}; }
  static GooseDataValue visibleString(std::string text) { return {Payload(std::move(text))}; }
  static GooseDataValue utcTime(TimePoint time) { return {Payload(time)}; }
  static GooseDataValue structure(std::vector<GooseDataValue> members) {
    return {Payload(Structure{std::move(members)})};
  }
  static GooseDataValue array(std::vector<GooseDataValue> members) {
    return {Payload(Array{std::move(members)})};
  }
  static GooseDataValue unknown(std::uint8_t tag, Bytes data) {
    return {Payload(Unknown{tag, std::move(data)})};
  }

  bool operator==(const GooseDataValue&) const;

  /// Octets of storage behind this object.
  std::size_t heapOctets() const;

  /// Exactly the keys "type" and "value", for hosts that exchange such maps.
  FlutterDict toFlutterDict() const;
};

}  // namespace goosestack
