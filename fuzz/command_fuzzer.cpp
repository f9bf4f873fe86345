// Texts of clients: parsed, decoded to a command, and the command's values put to the use that the
// server has for them.
#include <algorithm>
#include <chrono>
#include <string>

#include "fuzz/require.h"
#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/interface_name.h"
#include "goosestack/utf8.h"
#include "protocol/base64.h"
#include "protocol/bridge_command.h"
#include "protocol/bridge_event_encoder.h"
#include "protocol/from_bridge_json.h"
#include "protocol/json.h"
#include "protocol/to_bridge_json.h"
#include "server/goose_filter.h"
#include "stack/publication_schedule.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

bool isUtf8(std::string_view text) {
  return isValidUtf8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::size_t nesting(const Json& tree) {
  if (!tree.is_structured()) return 0;  // Iterations over a scalar meet the scalar itself.
  std::size_t deepest = 0;
  for (const Json& inner : tree) deepest = std::max(deepest, nesting(inner));
  return deepest + 1;
}

/// The limits are all that our builder adds to the library's parser.
void checkVerdict(std::string_view text, bool accepted) {
  if (text.find('\0') != text.npos) return require(!accepted, "NUL is no part of JSON");
  const bool isDeep = std::count_if(text.begin(), text.end(), [](char c) {
                        return c == '[' || c == '{';
                      }) > static_cast<std::ptrdiff_t>(kMaxJsonNesting);
  require(accepted == Json::accept(text) || isDeep, "what is JSON, and only that, is accepted");
}

std::string textOf(const GooseDataValue& value) {
  constexpr std::size_t kShort = 64;
  JsonWriter out(0, kShort);
  toBridgeJson(value, out);
  require(!out.failed(), "values from JSON have a text");
  return std::string(out.text());
}

void checkValue(const GooseDataValue& value) {
  const std::string text = textOf(value);
  const auto object = parseJson(text);
  require(object.has_value(), "a value's text is JSON");
  const auto back = fromBridgeJson<GooseDataValue>(*object);
  require(back && textOf(*back) == text, "a value's text reads back");
}

void checkSchedule(const GoosePublishConfig& config) {
  PublicationSchedule schedule;
  schedule.stateChange(config);
  require(schedule.currentStNum() != 0 || config.lockStNum, "state numbers begin at one");
  PublicationSchedule::Instant now{};
  schedule.start(now);
  for (int frame = 0; frame < 3 && schedule.nextDeadline(); ++frame) {
    require(*schedule.nextDeadline() >= now, "deadlines go forward");
    now = *schedule.nextDeadline();
    require(schedule.takeDue(now).has_value(), "a deadline brings a frame");
  }
}

void use(const GoosePublishConfig& config) {
  for (const GooseDataValue& value : config.values) checkValue(value);
  checkSchedule(config);
  GoosePdu sent;
  sent.header.appId = config.appId;
  sent.goCBRef = config.goCBRef;
  sent.timeAllowedToLive = config.timeAllowedToLive;
  sent.datSet = config.dataSetRef;
  sent.goId = config.goId;
  sent.stNum = config.initialStNum;
  sent.sqNum = config.initialSqNum;
  sent.confRev = config.confRev;
  sent.allData = config.values;
  const auto payload = GoosePdu::encode(sent);
  if (!payload) return;  // Too large for a frame.
  const auto pdu = GoosePdu::parse(*payload);
  require(pdu && pdu->goCBRef == config.goCBRef && pdu->datSet == config.dataSetRef &&
              pdu->goId == config.goId && pdu->timeAllowedToLive == config.timeAllowedToLive &&
              pdu->allData.size() == config.values.size(),
          "what is published can be received");
}

void use(const BridgeCommand::PublishGoose& command) {
  use(command.config);
}

void use(const BridgeCommand::PublishSvApdu& command) {
  std::string text(base64Length(command.pdu.size()), ' ');
  writeBase64(command.pdu, text.data());
  require(decodeBase64(text) == command.pdu, "octets survive their text");
  const MacAddress source{};
  const Bytes frame = EthernetFrame::build(command.config.dstMac, source, command.config.vlanId,
                                           command.config.vlanPriority, command.pdu, kEtherTypeSv);
  const auto sv = EthernetFrame::parse(frame, kEtherTypeSv);
  require(sv && sv->dstMac == command.config.dstMac && sv->payload.size() == command.pdu.size(),
          "what is published can be received");
}

void use(const BridgeCommand::SubscribeGoose& command) {
  GooseMessage message;
  message.appId = 65535;
  message.goCBRef = "IED1LD0/LLN0$GO$gcb01";
  const GooseFilter filter{command.appIdFilter, command.goCBRefFilter};
  const bool wantsId =
      !command.appIdFilter || command.appIdFilter->empty() || *command.appIdFilter == "65535";
  const bool wantsReference =
      !command.goCBRefFilter || message.goCBRef.find(*command.goCBRefFilter) != std::string::npos;
  require(filter.matches(message) == (wantsId && wantsReference), "filters match as they say");
}

void use(const BridgeCommand::Ping& command) {
  const auto pong = parseJson(BridgeEventEncoder::pong(command.timestamp));
  require(pong && findInteger(*pong, "originalTimestamp") == command.timestamp,
          "a pong brings the ping's number back");
}

void use(const BridgeCommand::SetInterface& command) {
  // Names that pass go into log lines, events and other programs' arguments.
  if (!isValidInterfaceName(command.name)) return;
  for (const char c : command.name) require(c > ' ' && c < 0x7F, "names are printable");
}

template <class Command>
void use(const Command&) {}

template <class Record>
void checkStrictness(const Json& object) {
  const auto strict = fromBridgeJson<Record>(object, Reading::strict);
  if (!strict) return require(isUtf8(strict.error().reason()), "a reason can be told");
  require(strict == fromBridgeJson<Record>(object), "what a strict reading takes, any takes alike");
}

void run(std::string_view text) {
  const auto tree = parseJson(text);
  checkVerdict(text, tree.has_value());
  const auto command = BridgeRequest::fromText(text).command;
  if (!tree) return require(!command, "no command without a tree");
  require(isUtf8(text), "what is accepted is UTF-8");
  require(nesting(*tree) <= kMaxJsonNesting, "recursions over a tree are bounded");
  const auto again = parseJson(tree->dump());
  require(again && again->dump() == tree->dump(), "a parsed tree can be written and parsed");

  if (command) {
    require(command == BridgeCommand::fromJson(*tree), "text and tree decode alike");
    std::visit([](const auto& payload) { use(payload); }, command->payload);
  }
  if (!tree->is_object()) return;
  if (const auto value = fromBridgeJson<GooseDataValue>(*tree)) checkValue(*value);
  checkStrictness<GooseDataValue>(*tree);
  checkStrictness<GoosePublishConfig>(*tree);
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({reinterpret_cast<const char*>(data), size});
  return 0;
}
