#include "goosestack/goose_data_value.h"

#include <type_traits>

#include "goosestack/footprint.h"

namespace goosestack {
namespace {

// By Kind.
constexpr const char* kTypeNames[] = {"boolean", "bitString", "int32",       "uint32",
                                      "float32", "float64",   "octetString", "visibleString",
                                      "utcTime", "structure", "array",       "octetString"};

template <class T>
FlutterValue render(const T& held) {
  if constexpr (std::is_constructible_v<decltype(FlutterValue::value), std::in_place_type_t<T>>) {
    return {held};
  } else if constexpr (std::is_integral_v<T>) {
    return {std::int64_t{held}};
  } else if constexpr (std::is_same_v<T, float>) {
    return {static_cast<double>(held)};
  } else if constexpr (std::is_same_v<T, TimePoint>) {
    return {unixSeconds(held)};
  } else if constexpr (std::is_same_v<T, GooseDataValue::Unknown>) {
    return render(held.data);
  } else {
    FlutterList list;
    if constexpr (requires { held.members; }) {
      for (const auto& member : held.members) list.push_back({member.toFlutterDict()});
    } else {
      for (std::size_t i = 0; i < held.size(); ++i) list.push_back(render(held[i]));
    }
    return {std::move(list)};
  }
}

// Kind mirrors the order of the payload's alternatives; kind() relies on it.
using Kind = GooseDataValue::Kind;
template <Kind kind, class T>
constexpr bool kHolds = std::is_same_v<
    std::variant_alternative_t<static_cast<std::size_t>(kind), GooseDataValue::Payload>, T>;
static_assert(kHolds<Kind::bitString, GooseDataValue::BitString> &&
              kHolds<Kind::integer, std::int32_t>);
static_assert(kHolds<Kind::realDouble, double> && kHolds<Kind::utcTime, TimePoint>);
static_assert(kHolds<Kind::unknown, GooseDataValue::Unknown>);
static_assert(std::size(kTypeNames) == std::variant_size_v<GooseDataValue::Payload>);

std::size_t storageOf(const std::vector<GooseDataValue>& members) {
  std::size_t octets = heapOctets(members);
  for (const GooseDataValue& member : members) octets += member.heapOctets();
  return octets;
}

}  // namespace

std::size_t GooseDataValue::heapOctets() const {
  switch (kind()) {
    case Kind::bitString:
      return std::get<BitString>(payload).heapOctets();
    case Kind::octetString:
      return goosestack::heapOctets(std::get<Bytes>(payload));
    case Kind::visibleString:
      return goosestack::heapOctets(std::get<std::string>(payload));
    case Kind::structure:
      return storageOf(std::get<Structure>(payload).members);
    case Kind::array:
      return storageOf(std::get<Array>(payload).members);
    case Kind::unknown:
      return goosestack::heapOctets(std::get<Unknown>(payload).data);
    default:
      return 0;
  }
}

// Written out: clang 14 crashes on defaulted comparisons of recursive types.
bool GooseDataValue::Structure::operator==(const Structure& other) const {
  return members == other.members;
}

bool GooseDataValue::Array::operator==(const Array& other) const {
  return members == other.members;
}

bool GooseDataValue::operator==(const GooseDataValue& other) const {
  return payload == other.payload;
}

FlutterDict GooseDataValue::toFlutterDict() const {
  return {{"type", {std::string(kTypeNames[payload.index()])}},
          {"value", std::visit([](const auto& held) { return render(held); }, payload)}};
}

}  // namespace goosestack
