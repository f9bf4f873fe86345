#include "protocol/bridge_event_encoder.h"

#include "protocol/base64.h"
#include "protocol/to_bridge_json.h"

#ifndef TARNLINK_APP_VERSION
#define TARNLINK_APP_VERSION "dev"
#endif

namespace tarnlink {
namespace {

void boolean(bool value, JsonWriter& out) {
  JsonRun run = out.begin(JsonRun::kMaxBoolean);
  run.boolean(value);
  out.end(run);
}

void integer(std::int64_t value, JsonWriter& out) {
  JsonRun run = out.begin(JsonRun::kMaxInteger);
  run.integer(value);
  out.end(run);
}

void interface(const goosestack::NetworkInterfaceInfo& info, JsonWriter& out) {
  out.literal("{\"name\":");
  out.string(info.name);
  out.literal(",\"displayName\":");
  out.string(info.displayName);
  out.literal(",\"isUp\":");
  boolean(info.isUp, out);
  out.literal(",\"macAddress\":");
  out.string(info.macAddress);
  out.literal(",\"supportsMulticast\":");
  boolean(info.supportsMulticast, out);
  out.literal("}");
}

/// Ends the event; one that could not be written gives way to the fixed text.
void finish(JsonWriter& out) {
  if (!out.failed()) return out.literal("}");
  out.clear();
  out.literal(BridgeEventEncoder::kEncodeFailed);
}

std::string finished(JsonWriter& out) {
  finish(out);
  return std::string(out.text());
}

}  // namespace

std::string_view BridgeEventEncoder::appVersion() {
  return TARNLINK_APP_VERSION;
}

std::string BridgeEventEncoder::authResult(bool ok) {
  JsonWriter out;
  out.literal("{\"event\":\"auth_result\",\"ok\":");
  boolean(ok, out);
  out.literal(",\"version\":");
  out.string(appVersion());
  out.literal(",\"protocol\":");
  integer(kProtocol, out);
  return finished(out);
}

std::string BridgeEventEncoder::error(std::string_view message, std::int64_t code,
                                      std::string_view reason) {
  JsonWriter out;
  out.literal("{\"event\":\"error\",\"error\":");
  out.string(message);
  out.literal(",\"code\":");
  integer(code, out);
  if (!reason.empty()) {
    out.literal(",\"reason\":");
    out.string(reason);
  }
  return finished(out);
}

std::string BridgeEventEncoder::marked(std::string event, const RequestId& id) {
  JsonWriter out;
  if (const auto* number = std::get_if<std::int64_t>(&id)) {
    integer(*number, out);
  } else {
    out.string(std::get<std::string>(id));
  }
  event.pop_back();  // The closing brace.
  return event + ",\"requestId\":" + std::string(out.text()) + "}";
}

std::string BridgeEventEncoder::pong(std::int64_t originalTimestamp, goosestack::TimePoint now) {
  JsonWriter out;
  out.literal("{\"event\":\"pong\",\"originalTimestamp\":");
  integer(originalTimestamp, out);
  out.literal(",\"responseTimestamp\":");
  integer(static_cast<std::int64_t>(goosestack::unixSeconds(now) * 1000), out);
  return finished(out);
}

std::string BridgeEventEncoder::interfaces(
    const std::vector<goosestack::NetworkInterfaceInfo>& interfaces,
    std::string_view activeInterface) {
  JsonWriter out;
  out.literal("{\"event\":\"interfaces\",\"interfaces\":[");
  for (std::size_t i = 0; i < interfaces.size(); ++i) {
    if (i != 0) out.literal(",");
    interface(interfaces[i], out);
  }
  out.literal("],\"activeInterface\":");
  out.string(activeInterface);
  return finished(out);
}

std::string BridgeEventEncoder::bridgeStatus(const BridgeStatus& status) {
  JsonWriter out;
  out.literal("{\"event\":\"bridge_status\",\"isCapturing\":");
  boolean(status.isCapturing, out);
  out.literal(",\"activeInterface\":");
  out.string(status.activeInterface);
  out.literal(",\"messagesReceived\":");
  integer(status.messagesReceived, out);
  out.literal(",\"messagesPublished\":");
  integer(status.messagesPublished, out);
  out.literal(",\"bridgeVersion\":");
  out.string(appVersion());
  return finished(out);
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
