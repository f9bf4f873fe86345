#include "protocol/bridge_command.h"

#include <array>
#include <utility>

#include "protocol/base64.h"
#include "protocol/from_bridge_json.h"
#include "protocol/json.h"
#include "protocol/member_reader.h"

namespace tarnlink {
namespace {

using Decoded = BridgeCommand::Result;

constexpr goosestack::MacAddress kDefaultSvDestination{0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01};
constexpr std::uint8_t kDefaultSvVlanPriority = 4;
constexpr const char* kDefaultInterface = "en0";

std::optional<std::string> text(const Json& object, std::string_view key) {
  const std::string* found = findString(object, key);
  return found ? std::optional(*found) : std::nullopt;
}

boost::system::result<Reading, Unreadable> readingOf(const Json& object) {
  MemberReader members(object, Reading::strict);
  const bool isStrict = members.boolean("strict").value_or(false);
  if (members.fault()) return *members.fault();
  return isStrict ? Reading::strict : Reading::lenient;
}

template <class Payload>
Decoded withoutPayload(const Json&) {
  return BridgeCommand{Payload{}};
}

Decoded auth(const Json& object) {
  return BridgeCommand{BridgeCommand::Auth{text(object, "token").value_or("")}};
}

Decoded subscribeGoose(const Json& object) {
  return BridgeCommand{
      BridgeCommand::SubscribeGoose{text(object, "appIdFilter"), text(object, "goCBRefFilter")}};
}

Decoded publishGoose(const Json& object) {
  const auto reading = readingOf(object);
  if (!reading) return reading.error();
  auto config = fromBridgeJson<goosestack::GoosePublishConfig>(object, *reading);
  if (!config) return config.error();
  return BridgeCommand{BridgeCommand::PublishGoose{std::move(*config)}};
}

Decoded unpublishGoose(const Json& object) {
  auto goCBRef = text(object, "goCBRef");
  if (goCBRef && goCBRef->empty()) goCBRef.reset();
  return BridgeCommand{BridgeCommand::UnpublishGoose{std::move(goCBRef)}};
}

Decoded subscribeSv(const Json& object) {
  return BridgeCommand{BridgeCommand::SubscribeSv{findInteger(object, "appIdFilter")}};
}

Decoded publishSvApdu(const Json& object) {
  const auto reading = readingOf(object);
  if (!reading) return reading.error();
  MemberReader members = commandMembers(object, *reading);
  constexpr std::string_view kBase64 = "base64 with padding";
  const std::string* encoded = members.string("pduBase64", Need::always, kBase64);
  auto pdu = encoded ? decodeBase64(*encoded) : std::nullopt;
  if (!pdu) members.refuse("pduBase64", kBase64);
  const std::string* interface = members.string("interface");
  BridgeCommand::PublishSvApdu command{
      std::move(pdu).value_or(goosestack::Bytes()),
      goosestack::SvPublishConfig{
          .interface = interface ? *interface : kDefaultInterface,
          .dstMac = readMac(members, "dstMac").value_or(kDefaultSvDestination),
          .vlanId = members.integer<std::uint16_t>("vlanId", Need::no, kVlanIds).value_or(0),
          .vlanPriority = members.integer<std::uint8_t>("vlanPriority", Need::no, kVlanPriorities)
                              .value_or(kDefaultSvVlanPriority)}};
  members.refuseOthers("publish_sv_apdu");
  if (members.fault()) return *members.fault();
  return BridgeCommand{std::move(command)};
}

Decoded setInterface(const Json& object) {
  MemberReader members(object, Reading::lenient);
  const std::string* name = members.string("interface", Need::always);
  if (!name) return *members.fault();
  return BridgeCommand{BridgeCommand::SetInterface{*name}};
}

Decoded ping(const Json& object) {
  return BridgeCommand{BridgeCommand::Ping{findInteger(object, "timestamp").value_or(0)}};
}

struct Entry {
  std::string_view name;
  Decoded (*decode)(const Json&);
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
constexpr std::string_view kCommandName = "the name of a command";

std::optional<RequestId> requestId(const Json& mark) {
  const auto* text = mark.get_ptr<const std::string*>();
  if (text && text->size() <= BridgeRequest::kMaxRequestId) return *text;
  const auto number = asInteger(mark);
  return number ? std::optional<RequestId>(*number) : std::nullopt;
}

}  // namespace

BridgeCommand::Result BridgeCommand::fromJson(const Json& object) {
  if (!object.is_object()) return Unreadable{Unreadable::Case::refused, {}, "no JSON object"};
  MemberReader members(object, Reading::lenient);
  const std::string* name = members.string("cmd", Need::always, kCommandName);
  if (!name) return *members.fault();
  for (const Entry& entry : kCommands) {
    if (entry.name == *name) return entry.decode(object);
  }
  members.refuse("cmd", kCommandName);
  return *members.fault();
}

BridgeRequest BridgeRequest::fromText(std::string_view text) {
  const auto object = parseJson(text);
  if (!object) return {{}, false, object.error()};
  const Json* mark = findMember(*object, "requestId");
  const bool wantsReason = mark != nullptr || findMember(*object, "strict") != nullptr;
  auto id = mark ? requestId(*mark) : std::nullopt;
  if (mark != nullptr && !id) {
    const auto expected =
        "an integer of 64 bits, or a text of " + std::to_string(kMaxRequestId) + " octets at most";
    return {{}, wantsReason, unexpected("requestId", expected, mark)};
  }
  return {std::move(id), wantsReason, BridgeCommand::fromJson(*object)};
}

}  // namespace tarnlink
