#include "tools/tarnlinkctl/command_text.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "protocol/base64.h"
#include "protocol/json_value_codec.h"

namespace tarnlink {
namespace {

using Command = BridgeClient::Command;

template <class Value>
void put(Command& command, const char* key, const std::optional<Value>& value) {
  if (value) command[key] = *value;
}

/// Left out when false, which is every flag's default.
void putFlag(Command& command, const char* key, bool value) {
  if (value) command[key] = true;
}

Command arrayOf(const std::vector<goosestack::GooseDataValue>& values) {
  auto array = Command::array();
  for (const auto& value : values) {
    JsonWriter writer;
    toBridgeJson(value, writer);
    // A text that is not UTF-8 is refused when it is sent.
    array.push_back(writer.failed() ? Command("\xFF") : Command::parse(writer.text()));
  }
  return array;
}

}  // namespace

std::string defaultDataSetRef(std::string_view goCBRef) {
  constexpr std::string_view kConstraint = "$GO$";
  std::string reference(goCBRef);
  if (const auto at = reference.find(kConstraint); at != reference.npos) {
    reference.replace(at, kConstraint.size(), "$");
  }
  return reference;
}

Command commandOf(const SubscribeGooseCommand& command) {
  Command all{{"cmd", "subscribe_goose"}};
  if (command.appId) all["appIdFilter"] = std::to_string(*command.appId);
  put(all, "goCBRefFilter", command.goCBRef);
  return all;
}

Command commandOf(const SubscribeSvCommand& command) {
  Command all{{"cmd", "subscribe_sv"}};
  put(all, "appIdFilter", command.appId);
  return all;
}

Command commandOf(const PublishCommand& command) {
  Command all{{"cmd", "publish_goose"},
              {"appId", command.appId},
              {"goCBRef", command.goCBRef},
              {"dataSetRef", command.dataSetRef.value_or(defaultDataSetRef(command.goCBRef))},
              {"confRev", command.confRev}};
  put(all, "goID", command.goId);
  put(all, "interface", command.interface);
  put(all, "vlanId", command.vlanId);
  put(all, "vlanPriority", command.vlanPriority);
  put(all, "dstMac", command.dstMac);
  put(all, "srcMac", command.srcMac);
  put(all, "retransmissionProfile", command.profile);
  put(all, "timeAllowedToLive", command.timeAllowedToLive);
  putFlag(all, "test", command.test);
  putFlag(all, "needsCommission", command.needsCommission);
  put(all, "stNum", command.stNum);
  put(all, "sqNum", command.sqNum);
  putFlag(all, "lockStNum", command.lockStNum);
  putFlag(all, "lockSqNum", command.lockSqNum);
  all["strict"] = true;
  all["values"] = arrayOf(command.values);
  return all;
}

Command commandOf(const UnpublishCommand& command) {
  Command all{{"cmd", "unpublish_goose"}};
  put(all, "goCBRef", command.goCBRef);
  return all;
}

Command commandOf(const PublishSvCommand& command) {
  std::string encoded(base64Length(command.payload.size()), '\0');
  writeBase64(command.payload, encoded.data());
  Command all{{"cmd", "publish_sv_apdu"}, {"pduBase64", encoded}};
  put(all, "interface", command.interface);
  put(all, "dstMac", command.dstMac);
  put(all, "vlanId", command.vlanId);
  put(all, "vlanPriority", command.vlanPriority);
  all["strict"] = true;
  return all;
}

}  // namespace tarnlink
