#include "protocol/bridge_event_encoder.h"

#include <utility>

#include "protocol/base64.h"
#include "protocol/json.h"
#include "protocol/to_bridge_json.h"

#ifndef TARNLINK_APP_VERSION
#define TARNLINK_APP_VERSION "dev"
#endif

namespace tarnlink {
namespace {

/// An event that comes seldom.
std::string textOf(const Json& event) {
  try {
    return event.dump();
  } catch (const Json::type_error&) {  // Not UTF-8.
    return BridgeEventEncoder::kEncodeFailed;
  }
}

/// Ends the event; one that could not be written gives way to the fixed text.
void finish(JsonWriter& out) {
  if (!out.failed()) return out.literal("}");
  out.clear();
  out.literal(BridgeEventEncoder::kEncodeFailed);
}

}  // namespace

std::string_view BridgeEventEncoder::appVersion() {
  return TARNLINK_APP_VERSION;
}

std::string BridgeEventEncoder::authResult(bool ok) {
  return textOf(
      {{"event", "auth_result"}, {"ok", ok}, {"version", appVersion()}, {"protocol", kProtocol}});
}

std::string BridgeEventEncoder::error(std::string_view message, std::int64_t code,
                                      std::string_view reason) {
  Json event{{"event", "error"}, {"error", message}, {"code", code}};
  if (!reason.empty()) event["reason"] = reason;
  return textOf(event);
}

std::string BridgeEventEncoder::marked(std::string event, const RequestId& id) {
  event.pop_back();  // The closing brace.
  const Json mark = std::visit([](const auto& value) { return Json(value); }, id);
  return event + ",\"requestId\":" + mark.dump() + "}";
}

std::string BridgeEventEncoder::pong(std::int64_t originalTimestamp, goosestack::TimePoint now) {
  return textOf(
      {{"event", "pong"},
       {"originalTimestamp", originalTimestamp},
       {"responseTimestamp", static_cast<std::int64_t>(goosestack::unixSeconds(now) * 1000)}});
}

std::string BridgeEventEncoder::interfaces(
    const std::vector<goosestack::NetworkInterfaceInfo>& interfaces,
    std::string_view activeInterface) {
  Json list = Json::array();
  for (const goosestack::NetworkInterfaceInfo& info : interfaces) {
    list.push_back({{"name", info.name},
                    {"displayName", info.displayName},
                    {"isUp", info.isUp},
                    {"macAddress", info.macAddress},
                    {"supportsMulticast", info.supportsMulticast}});
  }
  return textOf({{"event", "interfaces"},
                 {"interfaces", std::move(list)},
                 {"activeInterface", activeInterface}});
}

std::string BridgeEventEncoder::bridgeStatus(const BridgeStatus& status) {
  return textOf({{"event", "bridge_status"},
                 {"isCapturing", status.isCapturing},
                 {"activeInterface", status.activeInterface},
                 {"messagesReceived", status.messagesReceived},
                 {"messagesPublished", status.messagesPublished},
                 {"bridgeVersion", appVersion()}});
}

std::string BridgeEventEncoder::svApdu(const goosestack::SvCapturedFrame& frame) {
  JsonWriter out;
  svApdu(frame, out);
  return std::string(out.text());
}

void BridgeEventEncoder::gooseMessage(const goosestack::GooseMessage& message, JsonWriter& out) {
  out.literal("{\"event\":\"goose_message\",\"message\":");
  toBridgeJson(message, out);
  finish(out);
}

void BridgeEventEncoder::svApdu(const goosestack::SvCapturedFrame& frame, JsonWriter& out) {
  constexpr std::size_t kFragments = 128;
  JsonRun run = out.begin(kFragments + base64Length(frame.pdu.size()));
  run.literal("{\"event\":\"sv_apdu\",\"pduBase64\":\"");
  run = JsonRun(writeBase64(frame.pdu, run.position()));
  run.literal("\",\"receivedAt\":");
  run.time(frame.receivedAt);
  run.literal(",\"vlanId\":");
  if (frame.vlanId) {
    run.integer(*frame.vlanId);
  } else {
    run.literal("null");
  }
  run.literal(",\"dstMac\":");
  out.end(run);
  out.string(frame.dstMac);
  out.literal(",\"srcMac\":");
  out.string(frame.srcMac);
  finish(out);
}

}  // namespace tarnlink
