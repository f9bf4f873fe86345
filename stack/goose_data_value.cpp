#include "goosestack/goose_data_value.h"

#include <type_traits>

#include "goosestack/footprint.h"

namespace goosestack {
namespace {

FlutterDict entry(const char* type, FlutterValue value) {
  FlutterDict dict;
  dict.emplace("type", FlutterValue{std::string(type)});
  dict.emplace("value", std::move(value));
  return dict;
}

template <class Sequence>
FlutterValue listOf(const Sequence& sequence, auto render) {
  FlutterList list;
  list.reserve(sequence.size());
  for (const auto& item : sequence) list.push_back(FlutterValue{render(item)});
  return FlutterValue{std::move(list)};
}

FlutterValue octetList(const Bytes& octets) {
  return listOf(octets, [](std::uint8_t octet) { return std::int64_t{octet}; });
}

FlutterValue memberList(const std::vector<GooseDataValue>& members) {
  return listOf(members, [](const GooseDataValue& member) { return member.toFlutterDict(); });
}

struct Renderer {
  FlutterDict operator()(bool value) const { return entry("boolean", FlutterValue{value}); }
  FlutterDict operator()(const GooseDataValue::BitString& bits) const {
    FlutterList list;
    list.reserve(bits.size());
    for (std::size_t i = 0; i < bits.size(); ++i) list.push_back(FlutterValue{bits[i]});
    return entry("bitString", FlutterValue{std::move(list)});
  }
  FlutterDict operator()(std::int32_t value) const {
    return entry("int32", FlutterValue{std::int64_t{value}});
  }
  FlutterDict operator()(std::uint32_t value) const {
    return entry("uint32", FlutterValue{std::int64_t{value}});
  }
  FlutterDict operator()(float value) const {
    return entry("float32", FlutterValue{static_cast<double>(value)});
  }
  FlutterDict operator()(double value) const { return entry("float64", FlutterValue{value}); }
  FlutterDict operator()(const Bytes& octets) const {
    return entry("octetString", octetList(octets));
  }
  FlutterDict operator()(const std::string& text) const {
    return entry("visibleString", FlutterValue{text});
  }
  FlutterDict operator()(TimePoint time) const {
    return entry("utcTime", FlutterValue{unixSeconds(time)});
  }
  FlutterDict operator()(const GooseDataValue::Structure& structure) const {
    return entry("structure", memberList(structure.members));
  }
  FlutterDict operator()(const GooseDataValue::Array& array) const {
    return entry("array", memberList(array.members));
  }
  FlutterDict operator()(const GooseDataValue::Unknown& unknown) const {
    return entry("octetString", octetList(unknown.data));
  }
};

// Kind mirrors the order of the payload's alternatives; kind() relies on it.
using Kind = GooseDataValue::Kind;
template <Kind kind, class T>
constexpr bool kHolds = std::is_same_v<
    std::variant_alternative_t<static_cast<std::size_t>(kind), GooseDataValue::Payload>, T>;
static_assert(kHolds<Kind::bitString, GooseDataValue::BitString> &&
              kHolds<Kind::integer, std::int32_t>);
static_assert(kHolds<Kind::realDouble, double> && kHolds<Kind::utcTime, TimePoint>);
static_assert(kHolds<Kind::unknown, GooseDataValue::Unknown>);

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
  return std::visit(Renderer{}, payload);
}

}  // namespace goosestack
