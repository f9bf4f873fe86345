#include "server/bridge_command.h"

#include <array>
#include <utility>

#include "server/base64.h"
#include "server/json_value_codec.h"

namespace tarnlink {
namespace {

using Decoded = std::optional<BridgeCommand>;

constexpr MacAddress kDefaultSvDestination{0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01};
constexpr std::int64_t kDefaultSvVlanPriority = 4;
constexpr const char* kDefaultInterface = "en0";

std::optional<std::string> text(const JsonObject& object, std::string_view key) {
  const std::string* found = object.string(key);
  return found ? std::optional(*found) : std::nullopt;
}

template <class Payload>
Decoded withoutPayload(const JsonObject&) {
  return BridgeCommand{Payload{}};
}

Decoded auth(const JsonObject& object) {
  return BridgeCommand{BridgeCommand::Auth{text(object, "token").value_or("")}};
}

Decoded subscribeGoose(const JsonObject& object) {
  return BridgeCommand{
      BridgeCommand::SubscribeGoose{text(object, "appIdFilter"), text(object, "goCBRefFilter")}};
}

Decoded publishGoose(const JsonObject& object) {
  auto config = fromBridgeJson<GoosePublishConfig>(object);
  if (!config) return {};
  return BridgeCommand{BridgeCommand::PublishGoose{std::move(*config)}};
}

Decoded unpublishGoose(const JsonObject& object) {
  auto goCBRef = text(object, "goCBRef");
  if (goCBRef && goCBRef->empty()) goCBRef.reset();
  return BridgeCommand{BridgeCommand::UnpublishGoose{std::move(goCBRef)}};
}

Decoded subscribeSv(const JsonObject& object) {
  return BridgeCommand{BridgeCommand::SubscribeSv{object.integer("appIdFilter")}};
}

Decoded publishSvApdu(const JsonObject& object) {
  const std::string* encoded = object.string("pduBase64");
  auto pdu = encoded ? decodeBase64(*encoded) : std::nullopt;
  if (!pdu) return {};
  const std::int64_t vlanId = object.integer("vlanId").value_or(0);
  const std::int64_t priority = object.integer("vlanPriority").value_or(kDefaultSvVlanPriority);
  if (!std::in_range<std::uint16_t>(vlanId) || !std::in_range<std::uint8_t>(priority)) return {};
  const std::string* mac = object.string("dstMac");
  const auto destination = mac ? parseMacAddress(*mac) : std::nullopt;
  return BridgeCommand{BridgeCommand::PublishSvApdu{
      std::move(*pdu),
      SvPublishConfig{.interface = text(object, "interface").value_or(kDefaultInterface),
                      .dstMac = destination.value_or(kDefaultSvDestination),
                      .vlanId = static_cast<std::uint16_t>(vlanId),
                      .vlanPriority = static_cast<std::uint8_t>(priority)}}};
}

Decoded setInterface(const JsonObject& object) {
  auto name = text(object, "interface");
  if (!name) return {};
  return BridgeCommand{BridgeCommand::SetInterface{std::move(*name)}};
}

Decoded ping(const JsonObject& object) {
  return BridgeCommand{BridgeCommand::Ping{object.integer("timestamp").value_or(0)}};
}

struct Entry {
  std::string_view name;
  Decoded (*decode)(const JsonObject&);
};

constexpr std::array kCommands{
    Entry{"auth", auth},
    Entry{"subscribe_goose", subscribeGoose},
    Entry{"unsubscribe_goose", withoutPayload<BridgeCommand::UnsubscribeGoose>},
    Entry{"publish_goose", publishGoose},
    Entry{"unpublish_goose", unpublishGoose},
    Entry{"subscribe_sv", subscribeSv},
    Entry{"unsubscribe_sv", withoutPayload<BridgeCommand::UnsubscribeSv>},
    Entry{"publish_sv_apdu", publishSvApdu},
    Entry{"get_interfaces", withoutPayload<BridgeCommand::GetInterfaces>},
    Entry{"set_interface", setInterface},
    Entry{"ping", ping},
};

}  // namespace

std::optional<BridgeCommand> BridgeCommand::fromJson(const JsonObject& object) {
  const std::string* name = object.string("cmd");
  if (!name) return {};
  for (const Entry& entry : kCommands) {
    if (entry.name == *name) return entry.decode(object);
  }
  return {};
}

std::optional<BridgeCommand> BridgeCommand::fromText(std::string_view text) {
  const auto object = parseJsonObject(text);
  return object ? fromJson(*object) : std::nullopt;
}

}  // namespace tarnlink
