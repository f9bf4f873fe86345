// Equality of decoded values and PDUs, floats by their bits: a NaN from the wire equals itself
// here.
#pragma once

#include <algorithm>
#include <bit>
#include <variant>
#include <vector>

#include "stack/goose_pdu.h"

namespace tarnlink::fuzz {

bool isSame(const GooseDataValue& a, const GooseDataValue& b);

inline bool isSame(const std::vector<GooseDataValue>& a, const std::vector<GooseDataValue>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return isSame(x, y); });
}

inline bool isSame(const GooseDataValue& a, const GooseDataValue& b) {
  if (a.kind() != b.kind()) return false;
  if (const auto* value = std::get_if<float>(&a.payload)) {
    return std::bit_cast<std::uint32_t>(*value) ==
           std::bit_cast<std::uint32_t>(std::get<float>(b.payload));
  }
  if (const auto* structure = std::get_if<GooseDataValue::Structure>(&a.payload)) {
    return isSame(structure->members, std::get<GooseDataValue::Structure>(b.payload).members);
  }
  if (const auto* array = std::get_if<GooseDataValue::Array>(&a.payload)) {
    return isSame(array->members, std::get<GooseDataValue::Array>(b.payload).members);
  }
  return a == b;
}

/// Takes both apart to compare the rest with the PDU's own operator, and puts them together again.
inline bool isSame(GoosePdu& a, GoosePdu& b) {
  std::vector<GooseDataValue> valuesOfA;
  std::vector<GooseDataValue> valuesOfB;
  valuesOfA.swap(a.allData);
  valuesOfB.swap(b.allData);
  const bool result = isSame(valuesOfA, valuesOfB) && a == b;
  valuesOfA.swap(a.allData);
  valuesOfB.swap(b.allData);
  return result;
}

/// What encoding is to send of a decoded PDU.
inline GoosePduFields fieldsOf(const GoosePdu& pdu) {
  GoosePduFields fields;
  fields.header = pdu.header;
  fields.goCBRef = pdu.goCBRef;
  fields.timeAllowedToLive = pdu.timeAllowedToLive;
  fields.datSet = pdu.datSet;
  fields.goId = pdu.goId;
  fields.stNum = pdu.stNum;
  fields.sqNum = pdu.sqNum;
  fields.simulation = pdu.simulation;
  fields.confRev = pdu.confRev;
  fields.ndsCom = pdu.ndsCom;
  fields.values = pdu.allData;
  fields.timestamp = pdu.timestamp;
  return fields;
}

}  // namespace tarnlink::fuzz
