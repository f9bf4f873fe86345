#include "tools/tarnlinkctl/value_argument.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

#include "protocol/bridge_time.h"
#include "protocol/from_bridge_json.h"
#include "protocol/json.h"
#include "tools/common/hex_text.h"

namespace tarnlink {
namespace {

using Json = nlohmann::ordered_json;

// Each gives null for what it does not take.

template <class Number>
Json numberFrom(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return number - number == 0 ? Json(number) : Json();  // JSON has no infinite ones.
}

Json booleanFrom(std::string_view text) {
  return text == "true" || text == "false" ? Json(text == "true") : Json();
}

Json bitsFrom(std::string_view text) {
  if (text.find_first_not_of("01") != text.npos) return {};
  auto bits = Json::array();
  for (const char bit : text) bits.push_back(bit == '1');
  return bits;
}

Json octetsFrom(std::string_view text) {
  const auto octets = parseHex(text);
  return octets ? Json(*octets) : Json();
}

Json stringFrom(std::string_view text) {
  return text;
}

Json timeFrom(std::string_view text) {
  if (text == "now") return bridgeIso8601Formatter.string(goosestack::timeNow());
  return parseBridgeIso8601(text) ? Json(text) : Json();
}

struct ShortForm {
  std::string_view name;
  const char *type, *member;  // Of the protocol's object.
  Json (*read)(std::string_view text);
  const char* wanted;
};

constexpr std::array kShortForms{
    ShortForm{"bool", "boolean", "value", booleanFrom, "true or false"},
    ShortForm{"int", "int32", "value", numberFrom<std::int32_t>,
              "a whole number from -2147483648 to 2147483647"},
    ShortForm{"uint", "uint32", "value", numberFrom<std::uint32_t>,
              "a whole number from 0 to 4294967295"},
    ShortForm{"float", "float32", "value", numberFrom<float>, "a number that 32 bits can hold"},
    ShortForm{"double", "float64", "value", numberFrom<double>, "a number that 64 bits can hold"},
    ShortForm{"bits", "bitString", "bits", bitsFrom, "zeros and ones"},
    ShortForm{"octets", "octetString", "bytes", octetsFrom, "pairs of hexadecimal digits"},
    ShortForm{"string", "visibleString", "value", stringFrom, "text"},
    ShortForm{"time", "utcTime", "value", timeFrom, "a time like 2024-05-17T08:15:30.125Z, or now"},
};

ValueError unreadable(std::string_view text, const std::string& reason) {
  return {"'" + std::string(text) + "' " + reason};
}

}  // namespace

boost::system::result<Json, ValueError> parseValueArgument(std::string_view text) {
  if (text.starts_with('{')) {
    const auto object = parseJson(text);
    if (!object || !object->is_object()) {
      return unreadable(text, R"(is no JSON object like {"runtimeType":"int32","value":5})");
    }
    const auto value = fromBridgeJson<goosestack::GooseDataValue>(*object, Reading::strict);
    if (!value) return unreadable(text, "is no value: " + value.error().reason());
    return {boost::system::in_place_value, Json::parse(text)};
  }
  const auto colon = text.find(':');
  std::string names;
  for (const auto& [name, type, member, read, wanted] : kShortForms) {
    names.append(" ").append(name).append(":");
    if (colon == text.npos || name != text.substr(0, colon)) continue;
    if (auto value = read(text.substr(colon + 1)); !value.is_null()) {
      return {boost::system::in_place_value,
              Json{{"runtimeType", type}, {member, std::move(value)}}};
    }
    return unreadable(text, std::string("needs ") + wanted + " after '" + name.data() + ":'");
  }
  return unreadable(text, "begins with none of" + names + " {");
}

}  // namespace tarnlink
