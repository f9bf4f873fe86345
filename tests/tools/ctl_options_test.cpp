// Command lines of tarnlinkctl, and what the bridge makes of them.
#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "protocol/bridge_command.h"
#include "tests/support/scratch_folder.h"
#include "tests/tools/ctl_line.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using test::parseCtlLine;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(TarnlinkctlOptions, BadCommandLinesAreUsageErrorsThatSayWhatIsMeant) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "Commands of 'tarnlinkctl': discover pair"},
      {"dance", "'dance' is none of the commands.\nCommands of 'tarnlinkctl': discover pair"},
      {"pimg", "did you mean 'ping'?"},
      {"sub", "did you mean 'subscribe'?"},
      {"pair 1234567", "six digits"},
      {"ping --code 12345x", "six digits"},
      {"subscribe", "Commands of 'subscribe': goose sv"},
      {"ping --port 65536", "--port"},
      {"ping --timeout 0", "--timeout"},
      {"subscribe goose --app-id 65536", "--app-id"},
      {"subscribe goose --app-id -1", "--app-id"},
      {"subscribe goose --app-id 010", "decimal without leading zeros"},
      {"subscribe goose --appid 3", "did you mean '--app-id'?"},
      {"subscribe goose --jsn", "did you mean '--json'?"},
      {"subscribe goose --count 0", "--count"},
      {"subscribe goose --count -1", "--count"},
      {"subscribe sv --gocb-ref A", "--gocb-ref"},
      {"publish --gocb-ref A", "VALUE"},
      {"publish bool:true", "--gocb-ref"},
      {"publish --gocb-ref A --vlan-id 4096 bool:true", "--vlan-id"},
      {"publish --gocb-ref A --vlan-priority 8 bool:true", "--vlan-priority"},
      {"publish --gocb-ref A --dst-mac 01:0C:CD:01:00 bool:true", "--dst-mac"},
      {"publish --gocb-ref A --profile Fast bool:true", "--profile"},
      {"publish --gocb-ref A --ttl 0 bool:true", "--ttl"},
      {"publish --gocb-ref A --st-num 4294967296 bool:true", "--st-num"},
      {"publish-sv", "HEX or --file"},
      {"publish-sv 4", "hexadecimal"},
      {"publish-sv 40 --file /dev/null", "--file"},
      {"publish-sv 40 --interval 0", "--interval"},
  };
  for (const auto& [line, says] : cases) {
    SCOPED_TRACE(line);
    const auto parsed = parseCtlLine(line);
    ASSERT_TRUE(std::holds_alternative<CommandLineEnd>(parsed));
    EXPECT_EQ(std::get<CommandLineEnd>(parsed).exitCode, kExitUsage);
    EXPECT_THAT(std::get<CommandLineEnd>(parsed).text, HasSubstr(says));
  }
}

TEST(TarnlinkctlOptions, GlobalOptionsMayFollowTheCommandAndBeatTheEnvironment) {
  ::setenv("TARNLINK_CODE", "111111", 1);
  const auto plain = std::get<CtlOptions>(parseCtlLine("ping"));
  const auto given = std::get<CtlOptions>(parseCtlLine(
      "subscribe goose --app-id 0x1000 --gocb-ref A --code 222222 --port 9 --timeout 0.5 "
      "--json"));
  ::unsetenv("TARNLINK_CODE");
  EXPECT_EQ(plain.code, "111111");
  EXPECT_EQ(plain.port, 8765);
  EXPECT_FALSE(plain.isPortGiven);
  EXPECT_EQ(given.code, "222222");
  EXPECT_EQ(given.port, 9);
  EXPECT_TRUE(given.isPortGiven);
  EXPECT_EQ(given.timeout, std::chrono::milliseconds(500));
  EXPECT_TRUE(given.json);
}

/// What the bridge makes of a command line.
template <class Expected>
Expected atTheBridge(const std::string& line) {
  const auto parsed = parseCtlLine(line);
  if (const auto* end = std::get_if<CommandLineEnd>(&parsed)) throw std::runtime_error(end->text);
  const auto text = std::visit(
      [](const auto& command) -> std::string {
        if constexpr (requires { command.request; }) return command.request.dump();
        return {};
      },
      std::get<CtlOptions>(parsed).command);
  return std::get<Expected>(BridgeRequest::fromText(text).command.value().payload);
}

using Value = GooseDataValue;

TEST(TarnlinkctlValues, EveryFormIsReadAsMeant) {
  const std::pair<std::string, Value> cases[] = {
      {"bool:true", Value::boolean(true)},
      {"bool:false", Value::boolean(false)},
      {"int:-2147483648", Value::integer(INT32_MIN)},
      {"uint:4294967295", Value::unsignedInteger(UINT32_MAX)},
      {"float:-1.5e3", Value::floatingPoint(-1500)},
      {"double:0.1", Value::realDouble(0.1)},
      {"bits:0101", Value::bitString({false, true, false, true})},
      {"bits:", Value::bitString({})},
      {"octets:0aFF", Value::octetString({0x0A, 0xFF})},
      {"string:a:b{}", Value::visibleString("a:b{}")},
      {"time:2024-05-17T08:15:30.125Z", Value::utcTime(timeFromUnixSeconds(1715933730.125))},
      {R"({"type":"uint16","value":7})", Value::unsignedInteger(7)},
      {R"({"runtimeType":"structure","elements":[{"runtimeType":"array","elements":[)"
       R"({"runtimeType":"bitString","value":[true]}]}]})",
       Value::structure({Value::array({Value::bitString({true})})})},
  };
  const auto read = [](const std::string& text) {
    return atTheBridge<BridgeCommand::PublishGoose>("publish --gocb-ref A " + text).config.values;
  };
  for (const auto& [text, value] : cases) EXPECT_EQ(read(text), std::vector{value}) << text;
  const auto age = timeNow() - std::get<TimePoint>(read("time:now").at(0).payload);
  EXPECT_LT(std::abs(age.count()), 10);
}

TEST(TarnlinkctlValues, WhatWouldBecomeAnotherDatasetIsRefusedByName) {
  const std::string cases[] = {
      "true",
      "bool",
      "bool:1",
      "int:2147483648",
      "int:5x",
      "int:",
      "uint:-1",
      "float:1e39",
      "double:nan",
      "bits:012",
      "octets:0AF",
      "octets:0G",
      "time:yesterday",
      "Bool:true",
      "{",
      R"({"value":5})",
      R"({"runtimeType":"int32"})",
      R"({"runtimeType":"structure","elements":[{"runtimeType":"uint64","value":5}]})",
  };
  for (const auto& text : cases) {
    const auto parsed = parseCtlLine("publish --gocb-ref A " + text);
    ASSERT_TRUE(std::holds_alternative<CommandLineEnd>(parsed)) << text;
    EXPECT_THAT(std::get<CommandLineEnd>(parsed).text, StartsWith("VALUE: '" + text + "' "));
  }
}

TEST(TarnlinkctlCommands, PublicationArrivesWithEveryOption) {
  const auto config = atTheBridge<BridgeCommand::PublishGoose>(
                          "publish --gocb-ref I/LLN0$GO$g --app-id 0x3001 --dataset I/LLN0$ds "
                          "--conf-rev 7 --go-id trip --interface eth1 --vlan-id 100 --dst-mac "
                          "01:0C:CD:01:00:07 --vlan-priority 6 --src-mac 02:00:00:00:00:01 "
                          "--profile fast --ttl 4000 --test --needs-commission --st-num 5 "
                          "--sq-num 6 --lock-st-num --lock-sq-num bool:true int:-5")
                          .config;
  const GoosePublishConfig expected{
      .appId = 0x3001,
      .goCBRef = "I/LLN0$GO$g",
      .dataSetRef = "I/LLN0$ds",
      .goId = "trip",
      .confRev = 7,
      .vlanId = 100,
      .vlanPriority = 6,
      .vlanCfi = false,
      .vlanTagged = true,
      .dstMac = {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x07},
      .srcMacOverride = MacAddress{0x02, 0, 0, 0, 0, 0x01},
      .retransmissionProfile = RetransmissionProfile::fast(),
      .values = {Value::boolean(true), Value::integer(-5)},
      .interface = "eth1",
      .timeAllowedToLive = 4000,
      .simulation = true,
      .ndsCom = true,
      .initialStNum = 5,
      .initialSqNum = 6,
      .lockStNum = true,
      .lockSqNum = true,
  };
  EXPECT_EQ(config, expected);
  const auto shortest =
      atTheBridge<BridgeCommand::PublishGoose>("publish bool:true --gocb-ref I/L$GO$g").config;
  EXPECT_EQ(shortest.dataSetRef, "I/L$g");
  EXPECT_EQ(shortest.goId, "I/L$GO$g");
  EXPECT_EQ(shortest.appId, 0x1000);
  EXPECT_EQ(shortest.confRev, 1U);
  EXPECT_EQ(shortest.retransmissionProfile, RetransmissionProfile::standard());
}

TEST(TarnlinkctlCommands, OthersArriveAsMeant) {
  const auto sv = atTheBridge<BridgeCommand::PublishSvApdu>(
      "publish-sv 40000008ff --interface eth1 --dst-mac 01:0C:CD:04:00:07 --vlan-id 5 "
      "--vlan-priority 3");
  EXPECT_EQ(sv.pdu, (Bytes{0x40, 0x00, 0x00, 0x08, 0xFF}));
  EXPECT_EQ(sv.config,
            (SvPublishConfig{"eth1", MacAddress{0x01, 0x0C, 0xCD, 0x04, 0x00, 0x07}, 5, 3}));
  const test::ScratchFolder folder;
  test::writeFile(folder / "payload", {"\x40\x00\xFF", 3});
  EXPECT_EQ(atTheBridge<BridgeCommand::PublishSvApdu>("publish-sv --file " +
                                                      (folder / "payload").string())
                .pdu,
            (Bytes{0x40, 0x00, 0xFF}));
  using Unpublish = BridgeCommand::UnpublishGoose;
  EXPECT_EQ(atTheBridge<Unpublish>("unpublish").goCBRef, std::nullopt);
  EXPECT_EQ(atTheBridge<Unpublish>("unpublish --gocb-ref A").goCBRef, "A");
  using SubscribeSv = BridgeCommand::SubscribeSv;
  EXPECT_EQ(atTheBridge<SubscribeSv>("subscribe sv").appIdFilter, std::nullopt);
  EXPECT_EQ(atTheBridge<SubscribeSv>("subscribe sv --app-id 0x4000").appIdFilter, 0x4000);
  const auto goose =
      atTheBridge<BridgeCommand::SubscribeGoose>("subscribe goose --app-id 0x4000 --gocb-ref A");
  EXPECT_EQ(goose.appIdFilter, "16384");
  EXPECT_EQ(goose.goCBRefFilter, "A");
}

}  // namespace
}  // namespace tarnlink
