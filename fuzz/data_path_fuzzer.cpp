// The data path of a captured frame, from its octets to the text of the event: GOOSE and Sampled
// Values.
#include <algorithm>
#include <cmath>
#include <string>

#include "fuzz/require.h"
#include "goosestack/ethernet_frame.h"
#include "protocol/base64.h"
#include "protocol/bridge_event_encoder.h"
#include "protocol/json_value.h"
#include "protocol/json_value_codec.h"
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
void checkValues(const std::vector<Value>& values, const JsonObject& message) {
  const JsonArray* written = message.array("values");
  require(written && written->size() == values.size(), "every value is written");
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto* object = (*written)[i].as<JsonObject>();
    require(object, "a value is an object");
    const auto back = fromBridgeJson<Value>(*object);
    require(back && textOf(*back) == textOf(values[i]), "a written value reads back");
  }
}

void checkGooseEvent(const GooseMessage& message) {
  const std::string text = textOf(message);
  if (holdsNonFinite(message.values)) {
    return require(text == BridgeEventEncoder::kEncodeFailed, "JSON has no such number");
  }
  const auto event = parseJsonObject(text);
  require(event.has_value(), "an event is JSON");
  const JsonValue* member = event->find("message");
  const auto* object = member ? member->as<JsonObject>() : nullptr;
  require(object && *event->string("event") == "goose_message", "an event names itself");
  require(object->integer("appId") == message.appId &&
              *object->string("goCBRef") == message.goCBRef &&
              *object->string("dataSet") == message.dataSet &&
              object->integer("vlanId") == message.vlanId &&
              *object->string("srcMac") == *message.srcMac,
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
  const auto event = parseJsonObject(BridgeEventEncoder::svApdu(captured));
  require(event && *event->string("event") == "sv_apdu", "an event names itself");
  const auto pdu = decodeBase64(*event->string("pduBase64"));
  require(
      pdu && pdu->size() <= frame.size() && std::equal(pdu->rbegin(), pdu->rend(), frame.rbegin()),
      "the payload is the frame's end");
  require(event->integer("vlanId") == captured.vlanId &&
              *event->string("dstMac") == formatMac(frame.first(6)) &&
              *event->string("srcMac") == formatMac(frame.subspan(6, 6)),
          "addresses and tag are the frame's");
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::checkGoose({data, size});
  tarnlink::fuzz::checkSampledValues({data, size});
  return 0;
}
