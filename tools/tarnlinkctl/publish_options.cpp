#include "tools/tarnlinkctl/publish_options.h"

#include <fstream>
#include <iterator>
#include <memory>

#include "tools/tarnlinkctl/hex_text.h"
#include "tools/tarnlinkctl/option_checks.h"
#include "tools/tarnlinkctl/value_argument.h"

namespace tarnlink {
namespace {

constexpr std::int64_t kMaxVlanId = 4095;     // IEEE 802.1Q: 12 bits.
constexpr std::int64_t kMaxVlanPriority = 7;  // IEEE 802.1Q: 3 bits.
constexpr std::int64_t kMaxUint32 = UINT32_MAX;
constexpr std::int64_t kMaxInterval = 3'600'000;  // Milliseconds.
// More than any frame carries; the bridge says what its link does.
constexpr std::size_t kMaxSvPayload = 65535;  // Octets.

constexpr const char* kPublishFooter =
    "Each VALUE is a member of the dataset, in order:\n"
    "  bool:true  int:-5  uint:7  float:1.5  double:1.5  bits:0101  octets:0AFF  string:text\n"
    "  time:2024-05-17T08:15:30.125Z  time:now\n"
    "or an object of the protocol, for structures and arrays:\n"
    "  '{\"runtimeType\":\"structure\",\"elements\":[{\"runtimeType\":\"int32\",\"value\":5}]}'\n"
    "The bridge goes on publishing after this program has ended, until 'unpublish', another\n"
    "'publish' from any client, or its own end. On a VLAN, somebody may have to allow it first:\n"
    "give that person time with --timeout.\n"
    "Example: tarnlinkctl publish --gocb-ref 'IED1/LLN0$GO$g1' bool:true";

std::string checkValue(const std::string& text) {
  const auto value = parseValueArgument(text);
  return value ? "" : value.error().text;
}

std::string checkHex(const std::string& text) {
  return parseHex(text) ? "" : "must be pairs of hexadecimal digits: " + text;
}

template <class Command>
void addEnvelope(CLI::App& app, Command& command) {
  app.add_option("--interface", command.interface,
                 "Interface of the bridge; its active one unless given")
      ->type_name("NAME");
  app.add_option("--dst-mac", command.dstMac, "Destination address")
      ->check(checkMac)
      ->type_name("MAC");
  app.add_option("--vlan-id", command.vlanId, "VLAN; 0 or none: untagged")
      ->check(CLI::Range(std::int64_t{0}, kMaxVlanId))
      ->type_name("N");
  app.add_option("--vlan-priority", command.vlanPriority, "802.1p priority on a VLAN (default 4)")
      ->check(CLI::Range(std::int64_t{0}, kMaxVlanPriority))
      ->type_name("N");
}

void addNumbers(CLI::App& app, PublishCommand& command) {
  app.add_option("--conf-rev", command.confRev, "Configuration revision")
      ->check(CLI::Range(std::int64_t{0}, kMaxUint32))
      ->type_name("N")
      ->capture_default_str();
  app.add_option("--ttl", command.timeAllowedToLive,
                 "timeAllowedToLive in milliseconds (default 10000)")
      ->check(CLI::Range(std::int64_t{1}, kMaxUint32))
      ->type_name("MS");
  app.add_option("--st-num", command.stNum,
                 "State number; 0 or none: the one after the bridge's last")
      ->check(CLI::Range(std::int64_t{0}, kMaxUint32))
      ->type_name("N");
  app.add_option("--sq-num", command.sqNum, "Sequence number of the first frame (default 0)")
      ->check(CLI::Range(std::int64_t{0}, kMaxUint32))
      ->type_name("N");
  app.add_flag("--lock-st-num", command.lockStNum, "Keep the bridge's last state number");
  app.add_flag("--lock-sq-num", command.lockSqNum, "Send every frame under the first number");
}

void addPublish(CLI::App& app, CtlCommand& result) {
  struct Arguments {
    PublishCommand command;
    std::string appId;
    std::vector<std::string> values;
  };
  const auto given = std::make_shared<Arguments>();
  PublishCommand& command = given->command;
  auto* publish = app.add_subcommand("publish", "Publish a GOOSE control block");
  publish->footer(kPublishFooter);
  publish->add_option("--gocb-ref", command.goCBRef, "Reference of the control block")
      ->required()
      ->type_name("TEXT");
  publish->add_option("--app-id", given->appId, "APPID (4096 or 0x1000; default 0x1000)")
      ->check(checkAppId)
      ->type_name("N");
  publish
      ->add_option("--dataset", command.dataSetRef,
                   "Reference of the dataset; unless given, --gocb-ref without its $GO")
      ->type_name("TEXT");
  publish->add_option("--go-id", command.goId, "goID; --gocb-ref unless given")->type_name("TEXT");
  publish
      ->add_option("--profile", command.profile,
                   "Retransmission: standard (default), fast, or single for one frame alone")
      ->check(CLI::IsMember({"standard", "fast", "single"}))
      ->type_name("NAME");
  publish->add_option("--src-mac", command.srcMac, "Source address; the interface's unless given")
      ->check(checkMac)
      ->type_name("MAC");
  publish->add_flag("--test", command.test, "Mark the messages as simulated");
  publish->add_flag("--needs-commission", command.needsCommission, "Set ndsCom");
  addEnvelope(*publish, command);
  addNumbers(*publish, command);
  publish->add_option("VALUE", given->values, "Members of the dataset, see below")
      ->required()
      ->check(checkValue)
      ->type_name("");
  publish->callback([given, &result] {
    if (const auto appId = parseAppId(given->appId)) given->command.appId = *appId;
    for (const auto& text : given->values) {
      if (auto value = parseValueArgument(text)) given->command.values.push_back(*value);
    }
    result = given->command;
  });
}

void addUnpublish(CLI::App& app, CtlCommand& result) {
  const auto command = std::make_shared<UnpublishCommand>();
  auto* unpublish = app.add_subcommand("unpublish", "End the bridge's GOOSE publication");
  unpublish->add_option("--gocb-ref", command->goCBRef, "Only if it is that of this control block")
      ->type_name("TEXT");
  unpublish->callback([command, &result] { result = *command; });
}

goosestack::Bytes readPayload(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  goosestack::Bytes octets(kMaxSvPayload + 1);
  file.read(reinterpret_cast<char*>(octets.data()), static_cast<std::streamsize>(octets.size()));
  if (file.bad() || !file.is_open()) {
    throw CLI::ValidationError("--file", "cannot read " + path);
  }
  octets.resize(static_cast<std::size_t>(file.gcount()));
  return octets;
}

void addPublishSv(CLI::App& app, CtlCommand& result) {
  struct Arguments {
    PublishSvCommand command;
    std::string hex;
    std::string file;
    std::string count = "1";
    std::int64_t interval = 1000;
  };
  const auto given = std::make_shared<Arguments>();
  auto* publish = app.add_subcommand("publish-sv", "Send a Sampled Values payload once or more");
  publish->footer(
      "The payload is all that follows the EtherType: APPID, length, two reserved\n"
      "words, then the APDU. The bridge sends it as it is.");
  auto* hex = publish->add_option("HEX", given->hex, "The payload as hexadecimal digits")
                  ->check(checkHex)
                  ->type_name("");
  auto* file = publish->add_option("--file", given->file, "The payload is in this file instead")
                   ->check(CLI::ExistingFile)
                   ->excludes(hex)
                   ->type_name("FILE");
  addEnvelope(*publish, given->command);
  publish->add_option("--count", given->count, "Send it so many times")
      ->check(checkCount)
      ->type_name("N")
      ->capture_default_str();
  publish->add_option("--interval", given->interval, "Milliseconds between two of them")
      ->check(CLI::Range(std::int64_t{1}, kMaxInterval))
      ->type_name("MS")
      ->capture_default_str();
  publish->callback([given, hex, file, &result] {
    if (hex->empty() && file->empty()) throw CLI::RequiredError("HEX or --file");
    auto& command = given->command;
    command.payload = file->empty() ? *parseHex(given->hex) : readPayload(given->file);
    if (command.payload.size() > kMaxSvPayload) {
      throw CLI::ValidationError("payload", "is larger than any frame");
    }
    command.count = std::stoull(given->count);
    command.interval = std::chrono::milliseconds(given->interval);
    result = command;
  });
}

}  // namespace

void addPublishCommands(CLI::App& app, CtlCommand& command) {
  addPublish(app, command);
  addUnpublish(app, command);
  addPublishSv(app, command);
}

}  // namespace tarnlink
