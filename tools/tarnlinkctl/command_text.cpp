#include "tools/tarnlinkctl/command_text.h"

#include "protocol/base64.h"
#include "protocol/json_value_codec.h"

namespace tarnlink {

CommandText::CommandText(std::string_view name) {
  writer_.literal("{\"cmd\":");
  writer_.string(name);
}

void CommandText::member(std::string_view key) {
  writer_.literal(",");
  writer_.string(key);
  writer_.literal(":");
}

CommandText& CommandText::text(std::string_view key, const std::optional<std::string>& value) {
  if (!value) return *this;
  member(key);
  writer_.string(*value);
  return *this;
}

CommandText& CommandText::integer(std::string_view key, std::optional<std::int64_t> value) {
  if (!value) return *this;
  member(key);
  auto run = writer_.begin(JsonRun::kMaxInteger);
  run.integer(*value);
  writer_.end(run);
  return *this;
}

CommandText& CommandText::flag(std::string_view key, bool value) {
  if (!value) return *this;
  member(key);
  writer_.literal("true");
  return *this;
}

CommandText& CommandText::values(std::string_view key,
                                 const std::vector<goosestack::GooseDataValue>& values) {
  member(key);
  writer_.literal("[");
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i != 0) writer_.literal(",");
    toBridgeJson(values[i], writer_);
  }
  writer_.literal("]");
  return *this;
}

std::optional<std::string> CommandText::end() {
  writer_.literal("}");
  if (writer_.failed()) return {};
  return std::string(writer_.text());
}

std::string defaultDataSetRef(std::string_view goCBRef) {
  constexpr std::string_view kConstraint = "$GO$";
  std::string reference(goCBRef);
  if (const auto at = reference.find(kConstraint); at != reference.npos) {
    reference.replace(at, kConstraint.size(), "$");
  }
  return reference;
}

CommandText commandText(const SubscribeGooseCommand& command) {
  CommandText text("subscribe_goose");
  if (command.appId) text.text("appIdFilter", std::to_string(*command.appId));
  text.text("goCBRefFilter", command.goCBRef);
  return text;
}

CommandText commandText(const SubscribeSvCommand& command) {
  CommandText text("subscribe_sv");
  text.integer("appIdFilter", command.appId);
  return text;
}

CommandText commandText(const PublishCommand& command) {
  CommandText text("publish_goose");
  text.integer("appId", command.appId)
      .text("goCBRef", command.goCBRef)
      .text("dataSetRef", command.dataSetRef.value_or(defaultDataSetRef(command.goCBRef)))
      .integer("confRev", command.confRev)
      .text("goID", command.goId)
      .text("interface", command.interface)
      .integer("vlanId", command.vlanId)
      .integer("vlanPriority", command.vlanPriority)
      .text("dstMac", command.dstMac)
      .text("srcMac", command.srcMac)
      .text("retransmissionProfile", command.profile)
      .integer("timeAllowedToLive", command.timeAllowedToLive)
      .flag("test", command.test)
      .flag("needsCommission", command.needsCommission)
      .integer("stNum", command.stNum)
      .integer("sqNum", command.sqNum)
      .flag("lockStNum", command.lockStNum)
      .flag("lockSqNum", command.lockSqNum)
      .flag("strict", true)
      .values("values", command.values);
  return text;
}

CommandText commandText(const UnpublishCommand& command) {
  CommandText text("unpublish_goose");
  text.text("goCBRef", command.goCBRef);
  return text;
}

CommandText commandText(const PublishSvCommand& command) {
  std::string encoded(base64Length(command.payload.size()), '\0');
  writeBase64(command.payload, encoded.data());
  CommandText text("publish_sv_apdu");
  text.text("pduBase64", encoded)
      .text("interface", command.interface)
      .text("dstMac", command.dstMac)
      .integer("vlanId", command.vlanId)
      .integer("vlanPriority", command.vlanPriority)
      .flag("strict", true);
  return text;
}

}  // namespace tarnlink
