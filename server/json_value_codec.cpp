#include "server/json_value_codec.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "server/bridge_time.h"
#include "stack/goose_pdu.h"

namespace tarnlink {

std::optional<MacAddress> parseMacAddress(std::string_view text) {
  MacAddress address{};
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

using ValueResult = boost::system::result<GooseDataValue, Unreadable>;

/// Reads integer members and remembers whether one of them was outside its field's range.
class IntegerReader {
 public:
  explicit IntegerReader(const JsonObject& object) : object_(object) {}

  template <class Field>
  Field read(std::string_view key, Field fallback) {
    return narrow(object_.integer(key), fallback);
  }

  template <class Field>
  Field narrow(std::optional<std::int64_t> value, Field fallback) {
    if (!value) return fallback;
    if (std::in_range<Field>(*value)) return static_cast<Field>(*value);
    outOfRange_ = true;
    return fallback;
  }

  bool outOfRange() const { return outOfRange_; }

 private:
  const JsonObject& object_;
  bool outOfRange_ = false;
};

template <class Field>
std::optional<Field> readInteger(const JsonObject& object) {
  IntegerReader reader(object);
  const Field value = reader.read<Field>("value", 0);
  return reader.outOfRange() ? std::nullopt : std::optional(value);
}

template <class Field>
ValueResult integerValue(const JsonObject& object, GooseDataValue (*make)(Field)) {
  const auto value = readInteger<Field>(object);
  if (!value) return Unreadable::outOfRange;
  return make(*value);
}

ValueResult floatValue(const JsonObject& object) {
  // From here on a double rounds to a float beyond the largest one (IEEE 754, round to nearest).
  constexpr double kOverflow = 0x1.ffffffp+127;
  const double value = object.number("value").value_or(0);
  if (std::abs(value) >= kOverflow) return Unreadable::outOfRange;
  return GooseDataValue::floatingPoint(static_cast<float>(value));
}

ValueResult stringValue(const JsonObject& object) {
  const std::string* text = object.string("value");
  return GooseDataValue::visibleString(text ? *text : std::string());
}

/// The elements of an array when every one is of the type that `convert` accepts.
template <class List, class Convert>
std::optional<List> readArray(const JsonObject& object, std::string_view key, Convert convert) {
  const JsonArray* array = object.array(key);
  if (!array) return {};
  List list;
  list.reserve(array->size());
  for (const JsonValue& element : *array) {
    const auto converted = convert(element);
    if (!converted) return {};
    list.push_back(*converted);
  }
  return list;
}

ValueResult octetStringValue(const JsonObject& object) {
  const auto lowOctet = [](const JsonValue& element) -> std::optional<std::uint8_t> {
    const auto* number = element.as<JsonNumber>();
    if (!number || !number->integer) return {};
    return static_cast<std::uint8_t>(*number->integer);
  };
  auto octets = readArray<Bytes>(object, "bytes", lowOctet);
  if (!octets) octets = readArray<Bytes>(object, "value", lowOctet);
  return GooseDataValue::octetString(std::move(octets).value_or(Bytes()));
}

ValueResult bitStringValue(const JsonObject& object) {
  const auto bit = [](const JsonValue& element) -> std::optional<bool> {
    const bool* value = element.as<bool>();
    return value ? std::optional(*value) : std::nullopt;
  };
  auto bits = readArray<BitString>(object, "bits", bit);
  if (!bits) bits = readArray<BitString>(object, "value", bit);
  return GooseDataValue::bitString(std::move(bits).value_or(BitString()));
}

ValueResult utcTimeValue(const JsonObject& object) {
  const std::string* text = object.string("value");
  if (const auto time = text ? parseBridgeIso8601(*text) : std::nullopt) {
    return GooseDataValue::utcTime(*time);
  }
  return GooseDataValue::utcTime(timeFromUnixSeconds(object.number("value").value_or(0)));
}

/// The values under a key, those without a known type name left out.
boost::system::result<std::vector<GooseDataValue>, Unreadable> readValues(const JsonObject& object,
                                                                          std::string_view key) {
  std::vector<GooseDataValue> values;
  const JsonArray* elements = object.array(key);
  if (!elements) return values;
  const bool allObjects = std::all_of(elements->begin(), elements->end(), [](const auto& element) {
    return element.template as<JsonObject>() != nullptr;
  });
  if (!allObjects) return values;
  values.reserve(elements->size());
  for (const JsonValue& element : *elements) {
    auto value = fromBridgeJson<GooseDataValue>(*element.as<JsonObject>());
    if (value) {
      values.push_back(std::move(*value));
    } else if (value.error() == Unreadable::outOfRange) {
      return Unreadable::outOfRange;
    }
  }
  return values;
}

ValueResult nestedValue(const JsonObject& object,
                        GooseDataValue (*make)(std::vector<GooseDataValue>)) {
  auto members = readValues(object, "elements");
  if (!members) return members.error();
  return make(std::move(*members));
}

}  // namespace

template <>
boost::system::result<GooseDataValue, Unreadable> fromBridgeJson(const JsonObject& object) {
  const std::string* type = object.string("runtimeType");
  if (!type) type = object.string("type");
  if (!type) return Unreadable::incomplete;
  const std::string_view name = *type;
  if (name == "boolean") return GooseDataValue::boolean(object.boolean("value").value_or(false));
  if (name == "int32" || name == "int8" || name == "int16" || name == "int64") {
    return integerValue(object, &GooseDataValue::integer);
  }
  if (name == "uint32" || name == "uint8" || name == "uint16") {
    return integerValue(object, &GooseDataValue::unsignedInteger);
  }
  if (name == "float32") return floatValue(object);
  if (name == "float64") return GooseDataValue::realDouble(object.number("value").value_or(0));
  if (name == "visibleString" || name == "mmsString") return stringValue(object);
  if (name == "octetString") return octetStringValue(object);
  if (name == "bitString") return bitStringValue(object);
  if (name == "utcTime") return utcTimeValue(object);
  if (name == "structure") return nestedValue(object, &GooseDataValue::structure);
  if (name == "array") return nestedValue(object, &GooseDataValue::array);
  return Unreadable::incomplete;
}

namespace {

constexpr MacAddress kDefaultGooseDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
constexpr std::uint8_t kDefaultVlanPriority = 4;
constexpr std::uint32_t kDefaultTimeAllowedToLive = 10000;  // ms
constexpr const char* kDefaultInterface = "en0";

std::string stringOr(const JsonObject& object, std::string_view key, std::string_view fallback) {
  const std::string* text = object.string(key);
  return text ? *text : std::string(fallback);
}

std::optional<MacAddress> readMac(const JsonObject& object, std::string_view key) {
  const std::string* text = object.string(key);
  return text ? parseMac(*text) : std::nullopt;
}

std::string readGoId(const JsonObject& object, std::string_view goCBRef) {
  for (const std::string_view key : {"goID", "goId"}) {
    const std::string* text = object.string(key);
    if (text && !text->empty()) return *text;
  }
  return std::string(goCBRef);
}

const RetransmissionProfile& readProfile(const JsonObject& object) {
  const std::string name = stringOr(object, "retransmissionProfile", "standard");
  if (name == "fast") return RetransmissionProfile::fast();
  if (name == "single") return RetransmissionProfile::single();
  return RetransmissionProfile::standard();
}

std::optional<std::int64_t> positiveOrNothing(std::optional<std::int64_t> value) {
  return value && *value >= 1 ? value : std::nullopt;
}

}  // namespace

template <>
boost::system::result<GoosePublishConfig, Unreadable> fromBridgeJson(const JsonObject& object) {
  const auto appId = object.integer("appId");
  const std::string* goCBRef = object.string("goCBRef");
  const std::string* dataSetRef = object.string("dataSetRef");
  const auto confRev = object.integer("confRev");
  if (!appId || !goCBRef || !dataSetRef || !confRev) return Unreadable::incomplete;

  IntegerReader integers(object);
  const auto vlanId = integers.read<std::uint16_t>("vlanId", 0);
  GoosePublishConfig config{
      .appId = static_cast<std::uint16_t>(*appId),
      .goCBRef = *goCBRef,
      .dataSetRef = *dataSetRef,
      .goId = readGoId(object, *goCBRef),
      .confRev = integers.narrow<std::uint32_t>(confRev, 0),
      .vlanId = vlanId,
      .vlanPriority = integers.read("vlanPriority", kDefaultVlanPriority),
      .vlanCfi = object.boolean("vlanCfi").value_or(false),
      .vlanTagged = object.boolean("vlanTagged").value_or(vlanId != 0),
      .dstMac = readMac(object, "dstMac").value_or(kDefaultGooseDestination),
      .srcMacOverride = readMac(object, "srcMac"),
      .retransmissionProfile = readProfile(object),
      .values = {},
      .interface = stringOr(object, "interface", kDefaultInterface),
      .timeAllowedToLive = integers.narrow(positiveOrNothing(object.integer("timeAllowedToLive")),
                                           kDefaultTimeAllowedToLive),
      .simulation = object.boolean("test").value_or(false),
      .ndsCom = object.boolean("needsCommission").value_or(false),
      .initialStNum = integers.read<std::uint32_t>("stNum", 0),
      .initialSqNum = integers.read<std::uint32_t>("sqNum", 0),
      .lockStNum = object.boolean("lockStNum").value_or(false),
      .lockSqNum = object.boolean("lockSqNum").value_or(false),
  };
  if (integers.outOfRange()) return Unreadable::outOfRange;
  auto values = readValues(object, "values");
  if (!values) return values.error();
  config.values = std::move(*values);
  return config;
}

namespace {

// The event, its message, the list of values; an object and a list for each level of a dataset.
static_assert(3 + 2 * (GoosePdu::kMaxDataNesting + 1) <= kMaxJsonNesting,
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

void writeBits(const BitString& bits, JsonWriter& out) {
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

void writeOctets(const Bytes& octets, JsonWriter& out) {
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

void writeValues(const std::vector<GooseDataValue>& values, JsonWriter& out) {
  bool isFirst = true;
  for (const GooseDataValue& value : values) {
    if (!std::exchange(isFirst, false)) out.literal(",");
    toBridgeJson(value, out);
  }
}

template <std::size_t N>
void writeMembers(const char (&head)[N], const std::vector<GooseDataValue>& members,
                  JsonWriter& out) {
  out.literal(head);
  writeValues(members, out);
  out.literal("]}");
}

}  // namespace

void toBridgeJson(const GooseDataValue& value, JsonWriter& out) {
  using Kind = GooseDataValue::Kind;
  JsonRun run = out.begin(kValueFrame + std::max(JsonRun::kMaxInteger, JsonRun::kTime));
  switch (value.kind()) {
    case Kind::boolean:
      run.literal("{\"runtimeType\":\"boolean\",\"value\":");
      run.boolean(std::get<bool>(value.payload));
      break;
    case Kind::bitString:
      return writeBits(std::get<BitString>(value.payload), out);
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
      return writeOctets(std::get<Bytes>(value.payload), out);
    case Kind::visibleString:
      out.literal("{\"runtimeType\":\"visibleString\",\"value\":");
      out.string(std::get<std::string>(value.payload));
      return out.literal("}");
    case Kind::utcTime:
      run.literal("{\"runtimeType\":\"utcTime\",\"value\":");
      run.time(std::get<TimePoint>(value.payload));
      break;
    case Kind::structure:
      return writeMembers("{\"runtimeType\":\"structure\",\"elements\":[",
                          std::get<GooseDataValue::Structure>(value.payload).members, out);
    case Kind::array:
      return writeMembers("{\"runtimeType\":\"array\",\"elements\":[",
                          std::get<GooseDataValue::Array>(value.payload).members, out);
    case Kind::unknown:
      return writeOctets(std::get<GooseDataValue::Unknown>(value.payload).data, out);
  }
  run.character('}');
  out.end(run);
}

void toBridgeJson(const GooseMessage& message, JsonWriter& out) {
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
