#include "protocol/from_bridge_json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "protocol/bridge_time.h"

namespace tarnlink {

std::optional<goosestack::MacAddress> parseMacAddress(std::string_view text) {
  goosestack::MacAddress address{};
  std::size_t count = 0;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, text.find_first_of(":-"));
    text.remove_prefix(std::min(piece.size() + 1, text.size()));
    if (piece.empty()) continue;
    if (piece.size() != 2 || count == address.size()) return {};
    const auto [end, error] = std::from_chars(piece.begin(), piece.end(), address[count++], 16);
    if (error != std::errc() || end != piece.end()) return {};
  }
  if (count != address.size()) return {};
  return address;
}

namespace {

using goosestack::GooseDataValue;
using Values = std::vector<GooseDataValue>;
using Case = Unreadable::Case;

constexpr std::string_view kPayload = "value";

std::string elementOf(std::string_view key, std::size_t index) {
  return std::string(key) + "[" + std::to_string(index) + "]";
}

/// The elements of an array when `convert` takes every one.
template <class List, class Convert>
std::optional<List> readArray(MemberReader& members, std::string_view key, Need need,
                              std::string_view element, Convert convert) {
  const Json::array_t* array = members.array(key, need);
  if (!array) return {};
  List list;
  list.reserve(array->size());
  for (const Json& found : *array) {
    const auto converted = convert(found);
    if (!converted) {
      if (members.isStrict())
        members.fail(unexpected(elementOf(key, list.size()), element, &found));
      return {};
    }
    list.push_back(*converted);
  }
  return list;
}

/// A list under its own key, or under the other one that commands may use.
template <class List, class Convert>
List readList(MemberReader& members, std::string_view key, std::string_view element,
              Convert convert) {
  const bool isOther = members.isStrict() && !members.has(key) && members.has(kPayload);
  std::optional<List> list;
  if (!isOther) list = readArray<List>(members, key, Need::whenStrict, element, convert);
  if (isOther || (!list && !members.isStrict())) {
    list = readArray<List>(members, kPayload, Need::no, element, convert);
  }
  return std::move(list).value_or(List());
}

/// The values under a key. A lenient reading leaves out those without a known type name, and all of
/// them where one is no object.
Values readValues(MemberReader& members, std::string_view key, Need need) {
  const auto asObject = [](const Json& element) {
    return element.is_object() ? std::optional(&element) : std::nullopt;
  };
  const auto elements =
      readArray<std::vector<const Json*>>(members, key, need, "a dataset value", asObject);
  Values values;
  if (!elements) return values;
  values.reserve(elements->size());
  for (std::size_t i = 0; i < elements->size(); ++i) {
    auto value = fromBridgeJson<GooseDataValue>(*(*elements)[i], members.reading());
    if (value) {
      values.push_back(std::move(*value));
    } else if (value.error().which == Case::refused) {
      members.fail(std::move(value.error()).inside(elementOf(key, i)));
      return values;
    }
  }
  return values;
}

GooseDataValue booleanValue(MemberReader& members) {
  return GooseDataValue::boolean(members.boolean(kPayload, Need::whenStrict).value_or(false));
}

/// `Named`: whose range a strict reading demands. The lenient one is that of 32 bits, whatever the
/// name says.
template <class Named>
GooseDataValue signedValue(MemberReader& members) {
  return GooseDataValue::integer(
      members.integer<std::int32_t>(kPayload, Need::whenStrict, rangeOf<Named>()).value_or(0));
}

template <class Named>
GooseDataValue unsignedValue(MemberReader& members) {
  return GooseDataValue::unsignedInteger(
      members.integer<std::uint32_t>(kPayload, Need::whenStrict, rangeOf<Named>()).value_or(0));
}

GooseDataValue floatValue(MemberReader& members) {
  // From here on a double rounds to a float beyond the largest one (IEEE 754, round to nearest).
  constexpr double kOverflow = 0x1.ffffffp+127;
  const double value = members.number(kPayload, Need::whenStrict).value_or(0);
  if (std::abs(value) >= kOverflow) {
    members.refuse(kPayload, "a number within the range of float32");
    return {};
  }
  return GooseDataValue::floatingPoint(static_cast<float>(value));
}

GooseDataValue doubleValue(MemberReader& members) {
  return GooseDataValue::realDouble(members.number(kPayload, Need::whenStrict).value_or(0));
}

GooseDataValue stringValue(MemberReader& members) {
  const std::string* text = members.string(kPayload, Need::whenStrict);
  return GooseDataValue::visibleString(text ? *text : std::string());
}

GooseDataValue octetStringValue(MemberReader& members) {
  const auto lowOctet = [&members](const Json& element) -> std::optional<std::uint8_t> {
    const auto integer = asInteger(element);
    if (!integer || (members.isStrict() && !std::in_range<std::uint8_t>(*integer))) return {};
    return static_cast<std::uint8_t>(*integer);
  };
  return GooseDataValue::octetString(
      readList<goosestack::Bytes>(members, "bytes", "an integer from 0 to 255", lowOctet));
}

GooseDataValue bitStringValue(MemberReader& members) {
  const auto bit = [](const Json& element) {
    return element.is_boolean() ? std::optional(element.get<bool>()) : std::nullopt;
  };
  return GooseDataValue::bitString(
      readList<goosestack::BitString>(members, "bits", "true or false", bit));
}

// IEC 61850-8-1, 8.1.3.7: a UtcTime counts seconds since 1970 with 32 bits.
bool fitsUtcTime(goosestack::TimePoint time) {
  return goosestack::unixSeconds(time) >= 0 && goosestack::unixSeconds(time) < 0x1p32;
}

GooseDataValue utcTimeValue(MemberReader& members) {
  members.know(kPayload);
  const std::string* text = findString(members.object(), kPayload);
  const auto seconds = findNumber(members.object(), kPayload);
  auto time = text ? parseBridgeIso8601(*text) : std::nullopt;
  if (seconds) time = goosestack::timeFromUnixSeconds(*seconds);
  if (members.isStrict() && !(time && fitsUtcTime(*time))) {
    members.refuse(kPayload, "a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds");
  }
  return GooseDataValue::utcTime(time.value_or(goosestack::timeFromUnixSeconds(0)));
}

template <GooseDataValue (*make)(Values)>
GooseDataValue nestedValue(MemberReader& members) {
  return make(readValues(members, "elements", Need::whenStrict));
}

struct ValueType {
  std::string_view name;
  GooseDataValue (*read)(MemberReader& members);
};

constexpr ValueType kValueTypes[] = {
    {"boolean", booleanValue},
    {"int32", signedValue<std::int32_t>},
    {"int8", signedValue<std::int8_t>},
    {"int16", signedValue<std::int16_t>},
    {"int64", signedValue<std::int32_t>},
    {"uint32", unsignedValue<std::uint32_t>},
    {"uint8", unsignedValue<std::uint8_t>},
    {"uint16", unsignedValue<std::uint16_t>},
    {"float32", floatValue},
    {"float64", doubleValue},
    {"visibleString", stringValue},
    {"mmsString", stringValue},
    {"octetString", octetStringValue},
    {"bitString", bitStringValue},
    {"utcTime", utcTimeValue},
    {"structure", nestedValue<&GooseDataValue::structure>},
    {"array", nestedValue<&GooseDataValue::array>},
};

}  // namespace

template <>
boost::system::result<GooseDataValue, Unreadable> fromBridgeJson(const Json& object,
                                                                 Reading reading) {
  MemberReader members(object, reading);
  std::string_view key = "runtimeType";
  if (!findString(object, key) && (!members.isStrict() || !members.has(key)) &&
      members.has("type")) {
    key = "type";
  }
  const std::string* type = members.string(key);
  const auto* known =
      std::find_if(std::begin(kValueTypes), std::end(kValueTypes),
                   [type](const ValueType& candidate) { return type && candidate.name == *type; });
  if (known == std::end(kValueTypes)) {
    members.refuse(key, "a type name");
    Unreadable fault = *members.fault();
    if (!members.isStrict()) fault.which = Case::incomplete;
    return fault;
  }
  auto value = known->read(members);
  members.refuseOthers(*type);
  if (members.fault()) return *members.fault();
  return value;
}

namespace {

constexpr goosestack::MacAddress kDefaultGooseDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
constexpr std::uint8_t kDefaultVlanPriority = 4;
constexpr std::uint32_t kDefaultTimeAllowedToLive = 10000;  // ms
constexpr const char* kDefaultInterface = "en0";

std::string readGoId(MemberReader& members, std::string_view goCBRef) {
  for (const std::string_view key : {"goID", "goId"}) {
    if (members.isStrict() && !members.has(key)) continue;
    const std::string* text = members.string(key);
    if (text && !text->empty()) return *text;
    if (members.isStrict()) members.refuse(key, "a GOOSE id");
  }
  return std::string(goCBRef);
}

const goosestack::RetransmissionProfile& readProfile(MemberReader& members) {
  constexpr std::string_view kKey = "retransmissionProfile";
  constexpr std::string_view kNames = "standard, fast or single";
  const std::string* name = members.string(kKey, Need::no, kNames);
  if (name && *name == "fast") return goosestack::RetransmissionProfile::fast();
  if (name && *name == "single") return goosestack::RetransmissionProfile::single();
  if (name && *name != "standard" && members.isStrict()) members.refuse(kKey, kNames);
  return goosestack::RetransmissionProfile::standard();
}

// A lenient reading takes 0 and less for the default.
std::uint32_t readTimeAllowedToLive(MemberReader& members) {
  constexpr std::string_view kKey = "timeAllowedToLive";
  if (!members.isStrict() && findInteger(members.object(), kKey).value_or(1) < 1) {
    return kDefaultTimeAllowedToLive;
  }
  return members
      .integer<std::uint32_t>(kKey, Need::no, {1, std::numeric_limits<std::uint32_t>::max()})
      .value_or(kDefaultTimeAllowedToLive);
}

// A lenient reading takes the low 16 bits.
std::uint16_t readAppId(MemberReader& members) {
  constexpr std::string_view kKey = "appId";
  if (members.isStrict()) return members.integer<std::uint16_t>(kKey, Need::always).value_or(0);
  return static_cast<std::uint16_t>(members.integer<std::int64_t>(kKey, Need::always).value_or(0));
}

std::string textOr(const std::string* text, std::string_view fallback) {
  return text ? *text : std::string(fallback);
}

}  // namespace

MemberReader commandMembers(const Json& object, Reading reading) {
  MemberReader members(object, reading);
  for (const std::string_view key : {"cmd", "requestId", "strict"}) members.know(key);
  return members;
}

std::optional<goosestack::MacAddress> readMac(MemberReader& members, std::string_view key) {
  constexpr std::string_view kExpected = "an address as 01:0C:CD:01:00:01";
  const std::string* text = members.string(key, Need::no, kExpected);
  const auto address = text ? parseMac(*text) : std::nullopt;
  if (text && !address && members.isStrict()) members.refuse(key, kExpected);
  return address;
}

template <>
boost::system::result<goosestack::GoosePublishConfig, Unreadable> fromBridgeJson(const Json& object,
                                                                                 Reading reading) {
  MemberReader members = commandMembers(object, reading);
  const std::uint16_t appId = readAppId(members);
  const std::string goCBRef = textOr(members.string("goCBRef", Need::always), "");
  const auto vlanId = members.integer<std::uint16_t>("vlanId", Need::no, kVlanIds).value_or(0);
  // clang-format off
  goosestack::GoosePublishConfig config{
      .appId = appId,
      .goCBRef = goCBRef,
      .dataSetRef = textOr(members.string("dataSetRef", Need::always), ""),
      .goId = readGoId(members, goCBRef),
      .confRev = members.integer<std::uint32_t>("confRev", Need::always).value_or(0),
      .vlanId = vlanId,
      .vlanPriority = members.integer<std::uint8_t>("vlanPriority", Need::no, kVlanPriorities)
                          .value_or(kDefaultVlanPriority),
      .vlanCfi = members.boolean("vlanCfi").value_or(false),
      .vlanTagged = members.boolean("vlanTagged").value_or(vlanId != 0),
      .dstMac = readMac(members, "dstMac").value_or(kDefaultGooseDestination),
      .srcMacOverride = readMac(members, "srcMac"),
      .retransmissionProfile = readProfile(members),
      .values = {},
      .interface = textOr(members.string("interface"), kDefaultInterface),
      .timeAllowedToLive = readTimeAllowedToLive(members),
      .simulation = members.boolean("test").value_or(false),
      .ndsCom = members.boolean("needsCommission").value_or(false),
      .initialStNum = members.integer<std::uint32_t>("stNum").value_or(0),
      .initialSqNum = members.integer<std::uint32_t>("sqNum").value_or(0),
      .lockStNum = members.boolean("lockStNum").value_or(false),
      .lockSqNum = members.boolean("lockSqNum").value_or(false),
  };
  // clang-format on
  if (!members.fault()) config.values = readValues(members, "values", Need::no);
  members.refuseOthers("publish_goose");
  if (members.fault()) return *members.fault();
  return config;
}

}  // namespace tarnlink
