#include "tools/tarnlinkctl/publish_options.h"

#include <fstream>
#include <memory>

#include "protocol/base64.h"
#include "protocol/from_bridge_json.h"
#include "tools/common/hex_text.h"
#include "tools/common/printing.h"
#include "tools/tarnlinkctl/value_argument.h"

namespace tarnlink {
namespace {

// Of publications that name none. Any will do: receivers compare it, switches do not.
constexpr std::uint16_t kDefaultGooseAppId = 0x1000;
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

using Command = BridgeClient::Command;

std::string checkValue(const std::string& text) {
  const auto value = parseValueArgument(text);
  return value ? "" : value.error().text;
}

std::string checkHex(const std::string& text) {
  return parseHex(text) ? "" : "must be pairs of hexadecimal digits: " + text;
}

/// As the bridge reads them.
std::string checkMac(const std::string& text) {
  return parseMacAddress(text) ? "" : "must be an address like 01:0C:CD:01:00:01: " + text;
}

/// Options that become members of a command, which lives as long as the parser.
struct Members {
  CLI::App& app;
  Command& command;

  template <class Value>
  CLI::Option* add(const char* option, const char* key, const char* description) const {
    return app.add_option_function<Value>(
        option, [&to = command, key](const Value& value) { to[key] = value; }, description);
  }
  CLI::Option* text(const char* option, const char* key, const char* type,
                    const char* description) const {
    return add<std::string>(option, key, description)->type_name(type);
  }
  CLI::Option* number(const char* option, const char* key, std::int64_t least, std::int64_t most,
                      const char* description, const char* type = "N") const {
    return add<std::int64_t>(option, key, description)
        ->check(wholeNumber(least, most))
        ->type_name(type);
  }
  void flag(const char* option, const char* key, const char* description) const {
    app.add_flag_callback(
        option, [&to = command, key] { to[key] = true; }, description);
  }
  /// What GOOSE and Sampled Values are sent in.
  void envelope() const {
    text("--interface", "interface", "NAME",
         "Interface of the bridge; its active one unless given");
    text("--dst-mac", "dstMac", "MAC", "Destination address")->check(checkMac);
    number("--vlan-id", "vlanId", 0, kMaxVlanId, "VLAN; 0 or none: untagged");
    number("--vlan-priority", "vlanPriority", 0, kMaxVlanPriority,
           "802.1p priority on a VLAN (default 4)");
  }
};

/// Where IED/LLN0$GO$name has its dataset unless told otherwise: IED/LLN0$name (IEC 61850-8-1 puts
/// the functional constraint between the two).
std::string defaultDataSetRef(std::string reference) {
  constexpr std::string_view kConstraint = "$GO$";
  if (const auto at = reference.find(kConstraint); at != reference.npos) {
    reference.replace(at, kConstraint.size(), "$");
  }
  return reference;
}

void addPublish(CLI::App& app, CtlCommand& result) {
  const auto given = std::make_shared<PublishCommand>();
  auto& request = given->request;
  request = {
      {"cmd", "publish_goose"}, {"appId", kDefaultGooseAppId}, {"confRev", 1}, {"strict", true}};
  auto* publish = app.add_subcommand("publish", "Publish a GOOSE control block");
  publish->footer(kPublishFooter);
  const Members members{*publish, request};
  members.text("--gocb-ref", "goCBRef", "TEXT", "Reference of the control block")->required();
  members.add<std::uint16_t>("--app-id", "appId", "APPID (4096 or 0x1000; default 0x1000)")
      ->check(appIdRange())
      ->type_name("N");
  members.text("--dataset", "dataSetRef", "TEXT",
               "Reference of the dataset; unless given, --gocb-ref without its $GO");
  members.text("--go-id", "goID", "TEXT", "goID; --gocb-ref unless given");
  members
      .text("--profile", "retransmissionProfile", "NAME",
            "Retransmission: standard (default), fast, or single for one frame alone")
      ->check(CLI::IsMember({"standard", "fast", "single"}));
  members.text("--src-mac", "srcMac", "MAC", "Source address; the interface's unless given")
      ->check(checkMac);
  members.flag("--test", "test", "Mark the messages as simulated");
  members.flag("--needs-commission", "needsCommission", "Set ndsCom");
  members.envelope();
  members.number("--conf-rev", "confRev", 0, kMaxUint32, "Configuration revision")
      ->default_str("1");
  members.number("--ttl", "timeAllowedToLive", 1, kMaxUint32,
                 "timeAllowedToLive in milliseconds (default 10000)", "MS");
  members.number("--st-num", "stNum", 0, kMaxUint32,
                 "State number; 0 or none: the one after the bridge's last");
  members.number("--sq-num", "sqNum", 0, kMaxUint32,
                 "Sequence number of the first frame (default 0)");
  members.flag("--lock-st-num", "lockStNum", "Keep the bridge's last state number");
  members.flag("--lock-sq-num", "lockSqNum", "Send every frame under the first number");
  publish
      ->add_option_function<std::vector<std::string>>(
          "VALUE",
          [&request](const std::vector<std::string>& texts) {
            for (const auto& text : texts) request["values"].push_back(*parseValueArgument(text));
          },
          "Members of the dataset, see below")
      ->required()
      ->check(checkValue)
      ->type_name("");
  publish->callback([given, &request, &result] {
    const std::string reference = request["goCBRef"];
    if (!request.contains("dataSetRef")) request["dataSetRef"] = defaultDataSetRef(reference);
    given->done = "publishing " + printable(reference);
    result = *given;
  });
}

void addUnpublish(CLI::App& app, CtlCommand& result) {
  const auto given = std::make_shared<PublishCommand>(
      PublishCommand{{{"cmd", "unpublish_goose"}}, "unpublished whatever was published"});
  auto* unpublish = app.add_subcommand("unpublish", "End the bridge's GOOSE publication");
  unpublish
      ->add_option_function<std::string>(
          "--gocb-ref",
          [given](const std::string& reference) {
            given->request["goCBRef"] = reference;
            given->done = "unpublished " + printable(reference);
          },
          "Only if it is that of this control block")
      ->type_name("TEXT");
  unpublish->callback([given, &result] { result = *given; });
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
  };
  const auto given = std::make_shared<Arguments>();
  auto& command = given->command;
  command.request = {{"cmd", "publish_sv_apdu"}, {"strict", true}};
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
  Members{*publish, command.request}.envelope();
  publish->add_option("--count", command.count, "Send it so many times")
      ->check(countAboveZero())
      ->type_name("N")
      ->capture_default_str();
  publish->add_option("--interval", command.interval, "Milliseconds between two of them")
      ->check(wholeNumber(1, kMaxInterval))
      ->type_name("MS")
      ->capture_default_str();
  publish->callback([given, hex, file, &result] {
    if (hex->empty() && file->empty()) throw CLI::RequiredError("HEX or --file");
    const auto payload = file->empty() ? *parseHex(given->hex) : readPayload(given->file);
    if (payload.size() > kMaxSvPayload) {
      throw CLI::ValidationError("payload", "is larger than any frame");
    }
    std::string encoded(base64Length(payload.size()), '\0');
    writeBase64(payload, encoded.data());
    given->command.request["pduBase64"] = encoded;
    given->command.octets = payload.size();
    result = given->command;
  });
}

}  // namespace

CLI::Validator appIdRange() {
  return wholeNumber(0, UINT16_MAX).description("");
}

void addPublishCommands(CLI::App& app, CtlCommand& command) {
  addPublish(app, command);
  addUnpublish(app, command);
  addPublishSv(app, command);
}

}  // namespace tarnlink
