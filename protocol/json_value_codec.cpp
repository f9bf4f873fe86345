#include "protocol/json_value_codec.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "goosestack/goose_pdu.h"
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

std::string elementOf(std::string_view key, std::size_t index) {
  return std::string(key) + "[" + std::to_string(index) + "]";
}

using ValueResult = boost::system::result<goosestack::GooseDataValue, Unreadable>;
using Values = std::vector<goosestack::GooseDataValue>;
using Case = Unreadable::Case;

constexpr std::string_view kPayload = "value";
constexpr std::string_view kValueObject = "a dataset value";

template <class Field>
goosestack::GooseDataValue integerValue(MemberReader& members,
                                        goosestack::GooseDataValue (*make)(Field),
                                        IntegerRange strictRange) {
  return make(members.integer<Field>(kPayload, Need::whenStrict, strictRange).value_or(0));
}

// The lenient range is that of 32 bits, whatever the name says.
goosestack::GooseDataValue signedValue(MemberReader& members, std::string_view type) {
  using Limits = std::numeric_limits<std::int32_t>;
  IntegerRange range{Limits::min(), Limits::max()};
  if (type == "int8") range = {-128, 127};
  if (type == "int16") range = {-32768, 32767};
  return integerValue(members, &goosestack::GooseDataValue::integer, range);
}

goosestack::GooseDataValue unsignedValue(MemberReader& members, std::string_view type) {
  IntegerRange range{0, std::numeric_limits<std::uint32_t>::max()};
  if (type == "uint8") range.high = 255;
  if (type == "uint16") range.high = 65535;
  return integerValue(members, &goosestack::GooseDataValue::unsignedInteger, range);
}

goosestack::GooseDataValue floatValue(MemberReader& members) {
  // From here on a double rounds to a float beyond the largest one (IEEE 754, round to nearest).
  constexpr double kOverflow = 0x1.ffffffp+127;
  const double value = members.number(kPayload, Need::whenStrict).value_or(0);
  if (std::abs(value) >= kOverflow) {
    members.refuse(kPayload, "a number within the range of float32");
    return {};
  }
  return goosestack::GooseDataValue::floatingPoint(static_cast<float>(value));
}

goosestack::GooseDataValue doubleValue(MemberReader& members) {
  return goosestack::GooseDataValue::realDouble(
      members.number(kPayload, Need::whenStrict).value_or(0));
}

goosestack::GooseDataValue stringValue(MemberReader& members) {
  const std::string* text = members.string(kPayload, Need::whenStrict);
  return goosestack::GooseDataValue::visibleString(text ? *text : std::string());
}

/// The elements of an array when `convert` takes every one.
template <class List, class Convert>
std::optional<List> readArray(MemberReader& members, std::string_view key, Need need,
                              std::string_view element, Convert convert) {
  const JsonArray* array = members.array(key, need, "an array");
  if (!array) return {};
  List list;
  list.reserve(array->size());
  for (const JsonValue& found : *array) {
    const auto converted = convert(found);
    if (!converted) {
      if (members.isStrict()) {
        members.fail({Case::refused, elementOf(key, list.size()),
                      "expected " + std::string(element) + ", found " + described(&found)});
      }
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

goosestack::GooseDataValue octetStringValue(MemberReader& members) {
  const auto lowOctet = [&members](const JsonValue& element) -> std::optional<std::uint8_t> {
    const auto* number = element.as<JsonNumber>();
    if (!number || !number->integer) return {};
    if (members.isStrict() && !std::in_range<std::uint8_t>(*number->integer)) return {};
    return static_cast<std::uint8_t>(*number->integer);
  };
  return goosestack::GooseDataValue::octetString(
      readList<goosestack::Bytes>(members, "bytes", "an integer from 0 to 255", lowOctet));
}

goosestack::GooseDataValue bitStringValue(MemberReader& members) {
  const auto bit = [](const JsonValue& element) -> std::optional<bool> {
    const bool* value = element.as<bool>();
    return value ? std::optional(*value) : std::nullopt;
  };
  return goosestack::GooseDataValue::bitString(
      readList<goosestack::BitString>(members, "bits", "true or false", bit));
}

// IEC 61850-8-1, 8.1.3.7: a UtcTime counts seconds since 1970 with 32 bits.
bool fitsUtcTime(goosestack::TimePoint time) {
  return goosestack::unixSeconds(time) >= 0 && goosestack::unixSeconds(time) < 0x1p32;
}

goosestack::GooseDataValue utcTimeValue(MemberReader& members, const JsonObject& object) {
  const std::string* text = object.string(kPayload);
  auto time = text ? parseBridgeIso8601(*text) : std::nullopt;
  if (!time && object.number(kPayload))
    time = goosestack::timeFromUnixSeconds(*object.number(kPayload));
  members.know(kPayload);
  if (members.isStrict() && !(time && fitsUtcTime(*time))) {
    members.refuse(kPayload, "a time from 1970 to 2106, as 2024-05-17T08:15:30.125Z or in seconds");
  }
  return goosestack::GooseDataValue::utcTime(time.value_or(goosestack::timeFromUnixSeconds(0)));
}

/// The values under a key. A lenient reading leaves out those without a known type name, and all of
/// them where one is no object.
Values readValues(MemberReader& members, std::string_view key, Need need) {
  const auto asObject = [](const JsonValue& element) -> std::optional<const JsonObject*> {
    const auto* object = element.as<JsonObject>();
    return object ? std::optional(object) : std::nullopt;
  };
  const auto elements =
      readArray<std::vector<const JsonObject*>>(members, key, need, kValueObject, asObject);
  Values values;
  if (!elements) return values;
  values.reserve(elements->size());
  for (std::size_t i = 0; i < elements->size(); ++i) {
    auto value = fromBridgeJson<goosestack::GooseDataValue>(*(*elements)[i], members.reading());
    if (value) {
      values.push_back(std::move(*value));
    } else if (value.error().which == Case::refused) {
      members.fail(std::move(value.error()).inside(elementOf(key, i)));
      return values;
    }
  }
  return values;
}

goosestack::GooseDataValue nestedValue(MemberReader& members,
                                       goosestack::GooseDataValue (*make)(Values)) {
  return make(readValues(members, "elements", Need::whenStrict));
}

std::optional<goosestack::GooseDataValue> valueOf(std::string_view type, MemberReader& members,
                                                  const JsonObject& object) {
  if (type == "boolean") {
    return goosestack::GooseDataValue::boolean(
        members.boolean(kPayload, Need::whenStrict).value_or(false));
  }
  if (type == "int32" || type == "int8" || type == "int16" || type == "int64") {
    return signedValue(members, type);
  }
  if (type == "uint32" || type == "uint8" || type == "uint16") return unsignedValue(members, type);
  if (type == "float32") return floatValue(members);
  if (type == "float64") return doubleValue(members);
  if (type == "visibleString" || type == "mmsString") return stringValue(members);
  if (type == "octetString") return octetStringValue(members);
  if (type == "bitString") return bitStringValue(members);
  if (type == "utcTime") return utcTimeValue(members, object);
  if (type == "structure") return nestedValue(members, &goosestack::GooseDataValue::structure);
  if (type == "array") return nestedValue(members, &goosestack::GooseDataValue::array);
  return std::nullopt;
}

}  // namespace

template <>
ValueResult fromBridgeJson(const JsonObject& object, Reading reading) {
  MemberReader members(object, reading);
  std::string_view key = "runtimeType";
  if (!object.string(key) && (!members.isStrict() || !members.has(key)) && members.has("type")) {
    key = "type";
  }
  const std::string* type = members.string(key);
  auto value = type ? valueOf(*type, members, object) : std::nullopt;
  if (!value) {
    members.refuse(key, "a type name");
    Unreadable fault = *members.fault();
    if (!members.isStrict()) fault.which = Case::incomplete;
    return fault;
  }
  members.refuseOthers(*type);
  if (members.fault()) return *members.fault();
  return *std::move(value);
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
std::uint32_t readTimeAllowedToLive(MemberReader& members, const JsonObject& object) {
  constexpr std::string_view kKey = "timeAllowedToLive";
  if (!members.isStrict() && object.integer(kKey).value_or(1) < 1) {
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
  return static_cast<std::uint16_t>(members.integer(kKey, Need::always).value_or(0));
}

std::string textOr(const std::string* text, std::string_view fallback) {
  return text ? *text : std::string(fallback);
}

}  // namespace

MemberReader commandMembers(const JsonObject& object, Reading reading) {
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
boost::system::result<goosestack::GoosePublishConfig, Unreadable> fromBridgeJson(
    const JsonObject& object, Reading reading) {
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
      .timeAllowedToLive = readTimeAllowedToLive(members, object),
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

namespace {

// The event, its message, the list of values; an object and a list for each level of a dataset.
static_assert(3 + 2 * (goosestack::GoosePdu::kMaxDataNesting + 1) <= kMaxJsonNesting,
              "clients can read every event that the bridge writes");

// Room for the fragments of one value around its payload.
constexpr std::size_t kValueFrame = 48;

/// Every four bits as text, each bit with a comma behind it. Half a million bits in random order
/// take too long with a decision for each.
struct FourBits {
  static constexpr std::size_t kRoom = 4 * (JsonRun::kMaxBoolean + 1);
  std::array<char, kRoom> text{};
  std::uint8_t length = 0;
};
constexpr auto kFourBits = [] {
  std::array<FourBits, 16> all{};
  for (std::size_t bits = 0; bits < all.size(); ++bits) {
    for (std::size_t mask = 8; mask != 0; mask /= 2) {
      const std::string_view bit = (bits & mask) != 0 ? "true," : "false,";
      for (const char c : bit) all[bits].text[all[bits].length++] = c;
    }
  }
  return all;
}();

char* writeFourBits(unsigned bits, char* out) {
  std::memcpy(out, kFourBits[bits].text.data(), FourBits::kRoom);
  return out + kFourBits[bits].length;
}

void writeBits(const goosestack::BitString& bits, JsonWriter& out) {
  JsonRun run = out.begin(kValueFrame + bits.octets().size() * 2 * FourBits::kRoom);
  run.literal("{\"runtimeType\":\"bitString\",\"bits\":[");
  const std::size_t wholeOctets = bits.size() / 8;
  char* at = run.position();
  for (const std::uint8_t octet : bits.octets().first(wholeOctets)) {
    at = writeFourBits(octet & 0xF, writeFourBits(octet >> 4, at));
  }
  run = JsonRun(at);
  for (std::size_t i = wholeOctets * 8; i < bits.size(); ++i) {
    run.boolean(bits[i]);
    run.character(',');
  }
  // The end takes the place of the last comma.
  if (!bits.empty()) run = JsonRun(run.position() - 1);
  run.literal("]}");
  out.end(run);
}

void writeOctets(const goosestack::Bytes& octets, JsonWriter& out) {
  constexpr std::size_t kMaxOctet = 4;  // three digits and a comma
  // to_chars is told of more room than the last octet needs.
  JsonRun run = out.begin(kValueFrame + octets.size() * kMaxOctet + JsonRun::kMaxInteger);
  run.literal("{\"runtimeType\":\"octetString\",\"bytes\":[");
  for (std::size_t i = 0; i < octets.size(); ++i) {
    if (i != 0) run.character(',');
    run.integer(octets[i]);
  }
  run.literal("]}");
  out.end(run);
}

void writeValues(const std::vector<goosestack::GooseDataValue>& values, JsonWriter& out) {
  bool isFirst = true;
  for (const goosestack::GooseDataValue& value : values) {
    if (!std::exchange(isFirst, false)) out.literal(",");
    toBridgeJson(value, out);
  }
}

template <std::size_t N>
void writeMembers(const char (&head)[N], const std::vector<goosestack::GooseDataValue>& members,
                  JsonWriter& out) {
  out.literal(head);
  writeValues(members, out);
  out.literal("]}");
}

}  // namespace

void toBridgeJson(const goosestack::GooseDataValue& value, JsonWriter& out) {
  using Kind = goosestack::GooseDataValue::Kind;
  JsonRun run = out.begin(kValueFrame + std::max(JsonRun::kMaxInteger, JsonRun::kTime));
  switch (value.kind()) {
    case Kind::boolean:
      run.literal("{\"runtimeType\":\"boolean\",\"value\":");
      run.boolean(std::get<bool>(value.payload));
      break;
    case Kind::bitString:
      return writeBits(std::get<goosestack::BitString>(value.payload), out);
    case Kind::integer:
      run.literal("{\"runtimeType\":\"int32\",\"value\":");
      run.integer(std::get<std::int32_t>(value.payload));
      break;
    case Kind::unsignedInteger:
      run.literal("{\"runtimeType\":\"uint32\",\"value\":");
      run.integer(std::get<std::uint32_t>(value.payload));
      break;
    case Kind::floatingPoint:
      out.literal("{\"runtimeType\":\"float32\",\"value\":");
      out.number(std::get<float>(value.payload));
      return out.literal("}");
    case Kind::realDouble:
      out.literal("{\"runtimeType\":\"float64\",\"value\":");
      out.number(std::get<double>(value.payload));
      return out.literal("}");
    case Kind::octetString:
      return writeOctets(std::get<goosestack::Bytes>(value.payload), out);
    case Kind::visibleString:
      out.literal("{\"runtimeType\":\"visibleString\",\"value\":");
      out.string(std::get<std::string>(value.payload));
      return out.literal("}");
    case Kind::utcTime:
      run.literal("{\"runtimeType\":\"utcTime\",\"value\":");
      run.time(std::get<goosestack::TimePoint>(value.payload));
      break;
    case Kind::structure:
      return writeMembers("{\"runtimeType\":\"structure\",\"elements\":[",
                          std::get<goosestack::GooseDataValue::Structure>(value.payload).members,
                          out);
    case Kind::array:
      return writeMembers("{\"runtimeType\":\"array\",\"elements\":[",
                          std::get<goosestack::GooseDataValue::Array>(value.payload).members, out);
    case Kind::unknown:
      return writeOctets(std::get<goosestack::GooseDataValue::Unknown>(value.payload).data, out);
  }
  run.character('}');
  out.end(run);
}

void toBridgeJson(const goosestack::GooseMessage& message, JsonWriter& out) {
  // More than the keys and values of a group take. Too much in front of the last one would make the
  // storage grow for nothing at the end of a long message.
  constexpr std::size_t kGroup = 320;
  constexpr std::size_t kLastGroup = 96;
  // Room for most datasets at once: growing a text of megabytes step by step takes longer than
  // writing it.
  constexpr std::size_t kTypicalValue = 64;
  JsonRun run = out.begin(kGroup + message.values.size() * kTypicalValue);
  run.literal("{\"appId\":");
  run.integer(message.appId);
  run.literal(",\"goCBRef\":");
  out.end(run);
  out.string(message.goCBRef);
  out.literal(",\"dataSet\":");
  out.string(message.dataSet);

  run = out.begin(kGroup);
  run.literal(",\"timestamp\":");
  run.time(message.timestamp);
  run.literal(",\"stNum\":");
  run.integer(message.stNum);
  run.literal(",\"sqNum\":");
  run.integer(message.sqNum);
  run.literal(",\"test\":");
  run.boolean(message.simulation);
  run.literal(",\"needsCommission\":");
  run.boolean(message.needsCommission);
  run.literal(",\"confRev\":");
  run.integer(message.confRev);
  run.literal(",\"timeAllowedToLive\":");
  run.integer(message.timeAllowedToLive);
  run.literal(",\"values\":[");
  out.end(run);
  writeValues(message.values, out);

  run = out.begin(kLastGroup);
  run.literal("],\"receivedAt\":");
  run.time(message.receivedAt);
  if (message.vlanId) {
    run.literal(",\"vlanId\":");
    run.integer(*message.vlanId);
  }
  out.end(run);
  if (message.srcMac) {
    out.literal(",\"srcMac\":");
    out.string(*message.srcMac);
  }
  if (message.dstMac) {
    out.literal(",\"dstMac\":");
    out.string(*message.dstMac);
  }
  out.literal("}");
}

}  // namespace tarnlink
