#include "tools/tarnlinkctl/value_argument.h"

#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include "protocol/bridge_time.h"
#include "protocol/json_value.h"
#include "protocol/json_value_codec.h"
#include "tools/tarnlinkctl/hex_text.h"

namespace tarnlink {
namespace {

using Value = goosestack::GooseDataValue;
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
  const auto time = text == "now" ? std::optional(goosestack::timeNow()) : parseBridgeIso8601(text);
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

ValueError unreadable(std::string_view text, const std::string& reason) {
  return {"'" + std::string(text) + "' " + reason};
}

}  // namespace

boost::system::result<goosestack::GooseDataValue, ValueError> parseValueArgument(
    std::string_view text) {
  if (text.starts_with('{')) {
    const auto object = parseJsonObject(text);
    if (!object) {
      return unreadable(text, R"(is no JSON object like {"runtimeType":"int32","value":5})");
    }
    auto value = fromBridgeJson<Value>(*object, Reading::strict);
    if (!value) return unreadable(text, "is no value: " + value.error().reason());
    return std::move(*value);
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
