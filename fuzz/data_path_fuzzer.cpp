// The data path of a captured frame, from its octets to the text of the event: GOOSE and Sampled
// Values.
#include <algorithm>
#include <cmath>
#include <string>

#include "fuzz/require.h"
#include "goosestack/ethernet_frame.h"
#include "protocol/base64.h"
#include "protocol/bridge_event_encoder.h"
#include "protocol/from_bridge_json.h"
#include "protocol/json.h"
#include "protocol/to_bridge_json.h"
#include "stack/goose_frame_decoder.h"
#include "stack/sv_frame_decoder.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

constexpr TimePoint kReceivedAt = timeFromUnixSeconds(1715932770.125);

bool holdsNonFinite(const std::vector<Value>& values) {
  return std::any_of(values.begin(), values.end(), [](const Value& value) {
    if (const auto* number = std::get_if<float>(&value.payload)) return !std::isfinite(*number);
    if (const auto* array = std::get_if<Value::Array>(&value.payload)) {
      return holdsNonFinite(array->members);
    }
    const auto* structure = std::get_if<Value::Structure>(&value.payload);
    return structure && holdsNonFinite(structure->members);
  });
}

std::string textOf(const Value& value) {
  constexpr std::size_t kShort = 64;
  JsonWriter out(0, kShort);
  toBridgeJson(value, out);
  require(!out.failed(), "finite values have a text");
  return std::string(out.text());
}

std::string textOf(const GooseMessage& message) {
  JsonWriter out(10);
  BridgeEventEncoder::gooseMessage(message, out);
  return std::string(out.text());
}

/// The values come back from their text, as far as JSON tells them apart.
void checkValues(const std::vector<Value>& values, const Json& message) {
  const auto* written = findArray(message, "values");
  require(written && written->size() == values.size(), "every value is written");
  for (std::size_t i = 0; i < values.size(); ++i) {
    require((*written)[i].is_object(), "a value is an object");
    const auto back = fromBridgeJson<Value>((*written)[i]);
    require(back && textOf(*back) == textOf(values[i]), "a written value reads back");
  }
}

void checkGooseEvent(const GooseMessage& message) {
  const std::string text = textOf(message);
  if (holdsNonFinite(message.values)) {
    return require(text == BridgeEventEncoder::kEncodeFailed, "JSON has no such number");
  }
  const auto event = parseJson(text);
  require(event.has_value(), "an event is JSON");
  const Json* object = findMember(*event, "message");
  require(object && *findString(*event, "event") == "goose_message", "an event names itself");
  require(findInteger(*object, "appId") == message.appId &&
              *findString(*object, "goCBRef") == message.goCBRef &&
              *findString(*object, "dataSet") == message.dataSet &&
              findInteger(*object, "vlanId") == message.vlanId &&
              *findString(*object, "srcMac") == *message.srcMac,
          "an event tells the message");
  checkValues(message.values, *object);
}

void checkGoose(ByteView frame) {
  static const Bytes kOther = [] {
    GoosePdu pdu;
    pdu.goCBRef = "a control block of another device";
    pdu.allData = {Value::visibleString("left over"), Value::octetString({1, 2}),
                   Value::structure({Value::integer(1)})};
    constexpr MacAddress kMac{2, 2, 2, 2, 2, 2};
    return EthernetFrame::build(kMac, kMac, 7, 0, GoosePdu::encode(pdu).value());
  }();
  GooseFrameDecoder fresh;
  GooseMessage message;
  if (!fresh.decode(frame, kReceivedAt, message)) return;
  static GooseFrameDecoder used;
  static GooseMessage recycled;
  // Twice, because decoder and message exchange their storage.
  require(used.decode(kOther, {}, recycled) && used.decode(kOther, {}, recycled) &&
              used.decode(frame, kReceivedAt, recycled),
          "frames before do not matter");
  require(textOf(recycled) == textOf(message), "a recycled message keeps nothing");
  checkGooseEvent(message);
}

void checkSampledValues(ByteView frame) {
  SvCapturedFrame captured{Bytes(40, 1), "left over", "left over", 7, {}};
  if (!SvFrameDecoder::decode(frame, kReceivedAt, captured)) return;
  const auto event = parseJson(BridgeEventEncoder::svApdu(captured));
  require(event && *findString(*event, "event") == "sv_apdu", "an event names itself");
  const auto pdu = decodeBase64(*findString(*event, "pduBase64"));
  require(
      pdu && pdu->size() <= frame.size() && std::equal(pdu->rbegin(), pdu->rend(), frame.rbegin()),
      "the payload is the frame's end");
  require(findInteger(*event, "vlanId") == captured.vlanId &&
              *findString(*event, "dstMac") == formatMac(frame.first(6)) &&
              *findString(*event, "srcMac") == formatMac(frame.subspan(6, 6)),
          "addresses and tag are the frame's");
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::checkGoose({data, size});
  tarnlink::fuzz::checkSampledValues({data, size});
  return 0;
}
