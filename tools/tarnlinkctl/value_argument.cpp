#include "tools/tarnlinkctl/value_argument.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include "server/bridge_time.h"
#include "server/json_value.h"
#include "server/json_value_codec.h"
#include "tools/tarnlinkctl/hex_text.h"

namespace tarnlink {
namespace {

using Value = GooseDataValue;
using Read = std::optional<Value>;

template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return number;
}

template <class Float>
std::optional<Float> finite(std::string_view text) {
  const auto number = wholeNumber<Float>(text);
  return number && std::isfinite(*number) ? number : std::nullopt;  // JSON has no others.
}

Read booleanFrom(std::string_view text) {
  if (text != "true" && text != "false") return {};
  return Value::boolean(text == "true");
}

Read integerFrom(std::string_view text) {
  const auto number = wholeNumber<std::int32_t>(text);
  return number ? Read(Value::integer(*number)) : std::nullopt;
}

Read unsignedFrom(std::string_view text) {
  const auto number = wholeNumber<std::uint32_t>(text);
  return number ? Read(Value::unsignedInteger(*number)) : std::nullopt;
}

Read floatFrom(std::string_view text) {
  const auto number = finite<float>(text);
  return number ? Read(Value::floatingPoint(*number)) : std::nullopt;
}

Read doubleFrom(std::string_view text) {
  const auto number = finite<double>(text);
  return number ? Read(Value::realDouble(*number)) : std::nullopt;
}

Read bitsFrom(std::string_view text) {
  if (text.find_first_not_of("01") != text.npos) return {};
  Value::BitString bits;
  for (const char bit : text) bits.push_back(bit == '1');
  return Value::bitString(std::move(bits));
}

Read octetsFrom(std::string_view text) {
  auto octets = parseHex(text);
  return octets ? Read(Value::octetString(std::move(*octets))) : std::nullopt;
}

Read stringFrom(std::string_view text) {
  return Value::visibleString(std::string(text));
}

Read timeFrom(std::string_view text) {
  const auto time = text == "now" ? std::optional(timeNow()) : parseBridgeIso8601(text);
  return time ? Read(Value::utcTime(*time)) : std::nullopt;
}

struct ShortForm {
  std::string_view name;
  Read (*read)(std::string_view text);
  const char* wanted;
};

constexpr std::array kShortForms{
    ShortForm{"bool", booleanFrom, "true or false"},
    ShortForm{"int", integerFrom, "a whole number from -2147483648 to 2147483647"},
    ShortForm{"uint", unsignedFrom, "a whole number from 0 to 4294967295"},
    ShortForm{"float", floatFrom, "a number that 32 bits can hold"},
    ShortForm{"double", doubleFrom, "a number that 64 bits can hold"},
    ShortForm{"bits", bitsFrom, "zeros and ones"},
    ShortForm{"octets", octetsFrom, "pairs of hexadecimal digits"},
    ShortForm{"string", stringFrom, "text"},
    ShortForm{"time", timeFrom, "a time like 2024-05-17T08:15:30.125Z, or now"},
};

/// The list that the value was read from, when all of it was understood.
bool isWholeList(const JsonObject& object, std::initializer_list<std::string_view> keys,
                 std::size_t size) {
  return std::any_of(keys.begin(), keys.end(), [&](std::string_view key) {
    const auto* list = object.array(key);
    return list && list->size() == size;
  });
}

bool isWhole(const JsonObject& object, const Value& value);

bool areWhole(const JsonObject& object, const std::vector<Value>& members) {
  const auto* elements = object.array("elements");
  if (!elements || elements->size() != members.size()) return false;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (!isWhole(*(*elements)[i].as<JsonObject>(), members[i])) return false;
  }
  return true;
}

/// Whether `value` is all that the object says, with no default in place of a payload.
bool isWhole(const JsonObject& object, const Value& value) {
  switch (value.kind()) {
    case Value::Kind::boolean:
      return object.boolean("value").has_value();
    case Value::Kind::integer:
    case Value::Kind::unsignedInteger:
      return object.integer("value").has_value();
    case Value::Kind::floatingPoint:
    case Value::Kind::realDouble:
      return object.number("value").has_value();
    case Value::Kind::visibleString:
      return object.string("value") != nullptr;
    case Value::Kind::utcTime:
      if (const auto* text = object.string("value")) return parseBridgeIso8601(*text).has_value();
      return object.number("value").has_value();
    case Value::Kind::bitString:
      return isWholeList(object, {"bits", "value"},
                         std::get<Value::BitString>(value.payload).size());
    case Value::Kind::octetString:
      return isWholeList(object, {"bytes", "value"}, std::get<Bytes>(value.payload).size());
    case Value::Kind::structure:
      return areWhole(object, std::get<Value::Structure>(value.payload).members);
    case Value::Kind::array:
      return areWhole(object, std::get<Value::Array>(value.payload).members);
    case Value::Kind::unknown:
      break;
  }
  return false;
}

Read objectFrom(std::string_view text) {
  const auto object = parseJsonObject(text);
  if (!object) return {};
  auto value = fromBridgeJson<Value>(*object);
  if (!value || !isWhole(*object, *value)) return {};
  return std::move(*value);
}

ValueError unreadable(std::string_view text, const std::string& reason) {
  return {"'" + std::string(text) + "' " + reason};
}

}  // namespace

boost::system::result<GooseDataValue, ValueError> parseValueArgument(std::string_view text) {
  if (text.starts_with('{')) {
    if (auto value = objectFrom(text)) return std::move(*value);
    return unreadable(text,
                      R"(is no value of the protocol like {"runtimeType":"int32","value":5})");
  }
  const auto colon = text.find(':');
  const auto name = text.substr(0, colon);
  for (const ShortForm& form : kShortForms) {
    if (colon == text.npos || form.name != name) continue;
    if (auto value = form.read(text.substr(colon + 1))) return std::move(*value);
    return unreadable(text,
                      std::string("needs ") + form.wanted + " after '" + form.name.data() + ":'");
  }
  std::string names;
  for (const ShortForm& form : kShortForms) names += " " + std::string(form.name) + ":";
  return unreadable(text, "begins with none of" + names + " {");
}

}  // namespace tarnlink
