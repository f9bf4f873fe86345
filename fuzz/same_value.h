// Equality of decoded values and PDUs, floats by their bits: a NaN from the wire equals itself
// here.
#pragma once

#include <algorithm>
#include <bit>
#include <variant>
#include <vector>

#include "goosestack/goose_pdu.h"

namespace tarnlink::fuzz {

bool isSame(const goosestack::GooseDataValue& a, const goosestack::GooseDataValue& b);

inline bool isSame(const std::vector<goosestack::GooseDataValue>& a,
                   const std::vector<goosestack::GooseDataValue>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return isSame(x, y); });
}

inline bool isSame(const goosestack::GooseDataValue& a, const goosestack::GooseDataValue& b) {
  if (a.kind() != b.kind()) return false;
  if (const auto* value = std::get_if<float>(&a.payload)) {
    return std::bit_cast<std::uint32_t>(*value) ==
           std::bit_cast<std::uint32_t>(std::get<float>(b.payload));
  }
  if (const auto* structure = std::get_if<goosestack::GooseDataValue::Structure>(&a.payload)) {
    return isSame(structure->members,
                  std::get<goosestack::GooseDataValue::Structure>(b.payload).members);
  }
  if (const auto* array = std::get_if<goosestack::GooseDataValue::Array>(&a.payload)) {
    return isSame(array->members, std::get<goosestack::GooseDataValue::Array>(b.payload).members);
  }
  return a == b;
}

/// Takes both apart to compare the rest with the PDU's own operator, and puts them together again.
inline bool isSame(goosestack::GoosePdu& a, goosestack::GoosePdu& b) {
  std::vector<goosestack::GooseDataValue> valuesOfA;
  std::vector<goosestack::GooseDataValue> valuesOfB;
  valuesOfA.swap(a.allData);
  valuesOfB.swap(b.allData);
  const bool result = isSame(valuesOfA, valuesOfB) && a == b;
  valuesOfA.swap(a.allData);
  valuesOfB.swap(b.allData);
  return result;
}

}  // namespace tarnlink::fuzz
