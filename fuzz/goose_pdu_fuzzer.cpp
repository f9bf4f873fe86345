// GOOSE payloads: arbitrary octets as a whole payload, and those that are none as a dataset.
#include "goosestack/goose_pdu.h"

#include "fuzz/require.h"
#include "fuzz/same_value.h"
#include "goosestack/utf8.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

/// A PDU with something of everything, for what is left over in a recycled one.
Bytes richPayload() {
  GoosePdu pdu;
  pdu.allData = {
      Value::bitString(Value::BitString(20, true)),
      Value::octetString(Bytes(30, 0xEE)),
      Value::visibleString("more than the short string's room"),
      Value::structure({Value::boolean(true), Value::array({Value::integer(-1)})}),
      Value::unsignedInteger(4294967295),
      Value::floatingPoint(1.5F),
      Value::utcTime(timeFromUnixSeconds(1715932770.125)),
  };
  pdu.header.appId = 0xFFFF;
  pdu.goCBRef = "IED1LD0/LLN0$GO$gcb01";
  pdu.timeAllowedToLive = 2000;
  pdu.datSet = "IED1LD0/LLN0$dataset";
  pdu.goId = "Trip";
  pdu.stNum = 7;
  pdu.sqNum = 8;
  pdu.simulation = true;
  pdu.confRev = 9;
  pdu.ndsCom = true;
  pdu.timestamp = timeFromUnixSeconds(1715932770.125);
  return GoosePdu::encode(pdu).value();
}

/// What two of a PDU's forms agree on: the encoder leaves unknown values out, and times beyond its
/// range become zero.
TimePoint encodable(TimePoint time) {
  const double seconds = unixSeconds(time);
  return seconds >= 0 && seconds <= 4294967295.0 ? time : TimePoint{};
}

void makeEncodable(std::vector<Value>& values) {
  std::erase_if(values, [](const Value& value) { return value.kind() == Value::Kind::unknown; });
  for (Value& value : values) {
    if (auto* time = std::get_if<TimePoint>(&value.payload)) *time = encodable(*time);
    if (auto* array = std::get_if<Value::Array>(&value.payload)) makeEncodable(array->members);
    if (auto* structure = std::get_if<Value::Structure>(&value.payload)) {
      makeEncodable(structure->members);
    }
  }
}

std::size_t checkValues(const std::vector<Value>& values, int nesting) {
  require(values.empty() || nesting <= GoosePdu::kMaxDataNesting, "nesting is bounded");
  std::size_t count = values.size();
  for (const Value& value : values) {
    if (const auto* text = std::get_if<std::string>(&value.payload)) {
      require(isValidUtf8({reinterpret_cast<const std::uint8_t*>(text->data()), text->size()}),
              "texts are UTF-8");
    }
    if (const auto* array = std::get_if<Value::Array>(&value.payload)) {
      count += checkValues(array->members, nesting + 1);
    }
    if (const auto* structure = std::get_if<Value::Structure>(&value.payload)) {
      count += checkValues(structure->members, nesting + 1);
    }
  }
  return count;
}

/// `pdu` comes from `octets` octets. Leaves it as the encoder sends it.
void checkReencoded(GoosePdu& pdu, std::size_t octets) {
  require(checkValues(pdu.allData, 0) <= octets / 2, "a value takes two octets at least");
  const auto encoded = GoosePdu::encode(pdu);
  // An empty time of two octets grows to ten.
  if (!encoded) return require(octets > GoosePdu::kMaxElementSize / 6, "what was read is sendable");
  auto again = GoosePdu::parse(*encoded);
  require(again.has_value(), "what was encoded decodes");
  makeEncodable(pdu.allData);
  pdu.timestamp = encodable(pdu.timestamp);
  pdu.numDatSetEntries = static_cast<std::uint32_t>(pdu.allData.size());
  pdu.header = {pdu.header.appId, static_cast<std::uint16_t>(encoded->size())};
  require(isSame(*again, pdu), "an encoded PDU is the decoded one");
}

void run(ByteView input) {
  static const Bytes kRich = richPayload();
  static GoosePdu recycled;
  require(GoosePdu::parseInto(kRich, recycled).has_value(), "an encoded PDU decodes");

  auto fresh = GoosePdu::parse(input);
  const auto parsed = GoosePdu::parseInto(input, recycled);
  require(fresh.has_value() == parsed.has_value(), "both ways refuse alike");
  if (fresh) {
    require(isSame(*fresh, recycled), "a recycled PDU keeps nothing");
    return checkReencoded(*fresh, input.size());
  }
  require(fresh.error() == parsed.error() && fresh.error().which() == GooseError::Case::parseError,
          "a refusal has one reason");
  static const GoosePdu kUntouched = GoosePdu::parse(kRich).value();
  require(recycled == kUntouched, "a refusal changes nothing");
  GoosePdu dataset;
  dataset.allData = GoosePdu::parseDataValues(input);
  checkReencoded(dataset, input.size());
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({data, size});
  return 0;
}
