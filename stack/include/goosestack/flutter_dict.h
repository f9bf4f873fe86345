// Key-value maps with values of mixed type, for hosts that exchange records in that form.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace goosestack {

struct FlutterValue;
using FlutterDict = std::map<std::string, FlutterValue, std::less<>>;
using FlutterList = std::vector<FlutterValue>;

struct FlutterValue {
  std::variant<bool, std::int64_t, double, std::string, FlutterList, FlutterDict> value;

  bool operator==(const FlutterValue& other) const;
};

}  // namespace goosestack
