#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "server/bridge_command.h"
#include "server/json_value.h"
#include "tools/tarnlinkctl/command_text.h"
#include "tools/tarnlinkctl/options.h"
#include "tools/tarnlinkctl/printing.h"
#include "tools/tarnlinkctl/value_argument.h"

namespace tarnlink {
namespace {

std::variant<CtlOptions, CtlEnd> parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "tarnlinkctl");
  return parseCtlOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(TarnlinkctlOptions, BadCommandLinesAreUsageErrors) {
  const std::vector<const char*> cases[] = {
      {},
      {"dance"},
      {"pair"},
      {"set-interface"},
      {"subscribe"},
      {"ping", "--port", "0"},
      {"ping", "--port", "65536"},
      {"ping", "--timeout", "0"},
      {"subscribe", "goose", "--app-id", "65536"},
      {"subscribe", "goose", "--app-id", "-1"},
      {"subscribe", "goose", "--app-id", "0x"},
      {"subscribe", "goose", "--count", "0"},
      {"subscribe", "goose", "--count", "-1"},
      {"subscribe", "sv", "--gocb-ref", "A"},
      {"publish", "--gocb-ref", "A"},
      {"publish", "bool:true"},
      {"publish", "--gocb-ref", "A", "true"},
      {"publish", "--gocb-ref", "A", "--vlan-id", "4096", "bool:true"},
      {"publish", "--gocb-ref", "A", "--vlan-priority", "8", "bool:true"},
      {"publish", "--gocb-ref", "A", "--dst-mac", "01:0C:CD:01:00", "bool:true"},
      {"publish", "--gocb-ref", "A", "--profile", "Fast", "bool:true"},
      {"publish", "--gocb-ref", "A", "--ttl", "0", "bool:true"},
      {"publish", "--gocb-ref", "A", "--st-num", "4294967296", "bool:true"},
      {"publish-sv"},
      {"publish-sv", "4"},
      {"publish-sv", "--file", "/nonexistent"},
      {"publish-sv", "40", "--file", "/dev/null"},
      {"publish-sv", "40", "--interval", "0"},
  };
  for (const auto& arguments : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const auto parsed = parse(arguments);
    ASSERT_TRUE(std::holds_alternative<CtlEnd>(parsed));
    EXPECT_EQ(std::get<CtlEnd>(parsed).exit, CtlExit::usage);
    EXPECT_NE(std::get<CtlEnd>(parsed).text, "");
  }
}

TEST(TarnlinkctlOptions, GlobalOptionsMayFollowTheCommandAndBeatTheEnvironment) {
  ::setenv("TARNLINK_CODE", "111111", 1);
  const auto plain = std::get<CtlOptions>(parse({"ping"}));
  const auto given = std::get<CtlOptions>(
      parse({"subscribe", "goose", "--app-id", "0x1000", "--gocb-ref", "A", "--code", "222222",
             "--port", "9", "--timeout", "0.5", "--json"}));
  ::unsetenv("TARNLINK_CODE");
  EXPECT_EQ(plain.code, "111111");
  EXPECT_EQ(plain.port, 8765);
  EXPECT_EQ(given.code, "222222");
  EXPECT_EQ(given.port, 9);
  EXPECT_EQ(given.timeout, std::chrono::milliseconds(500));
  EXPECT_TRUE(given.json);
  const auto& command = std::get<SubscribeGooseCommand>(given.command);
  EXPECT_EQ(command.appId, 4096);
  EXPECT_EQ(command.goCBRef, "A");
  EXPECT_EQ(command.count, std::nullopt);
}

using Value = GooseDataValue;

TEST(TarnlinkctlValues, EveryFormIsReadAsMeant) {
  const std::pair<const char*, Value> cases[] = {
      {"bool:true", Value::boolean(true)},
      {"bool:false", Value::boolean(false)},
      {"int:-2147483648", Value::integer(INT32_MIN)},
      {"uint:4294967295", Value::unsignedInteger(UINT32_MAX)},
      {"float:-1.5e3", Value::floatingPoint(-1500)},
      {"double:0.1", Value::realDouble(0.1)},
      {"bits:0101", Value::bitString({false, true, false, true})},
      {"bits:", Value::bitString({})},
      {"octets:0aFF", Value::octetString({0x0A, 0xFF})},
      {"string:a:b {}", Value::visibleString("a:b {}")},
      {"time:2024-05-17T08:15:30.125Z", Value::utcTime(timeFromUnixSeconds(1715933730.125))},
      {R"({"type":"uint16","value":7})", Value::unsignedInteger(7)},
      {R"({"runtimeType":"structure","elements":[{"runtimeType":"array","elements":[)"
       R"({"runtimeType":"bitString","value":[true]}]}]})",
       Value::structure({Value::array({Value::bitString({true})})})},
  };
  for (const auto& [text, value] : cases) {
    SCOPED_TRACE(text);
    const auto read = parseValueArgument(text);
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, value);
  }
  const auto age = timeNow() - std::get<TimePoint>(parseValueArgument("time:now")->payload);
  EXPECT_LT(std::abs(age.count()), 10);
}

TEST(TarnlinkctlValues, WhatWouldBecomeAnotherDatasetIsRefusedByName) {
  const char* cases[] = {
      "",
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
      R"({"runtimeType":"uint64","value":5})",
      R"({"runtimeType":"int32"})",
      R"({"runtimeType":"int32","value":"5"})",
      R"({"runtimeType":"boolean","value":1})",
      R"({"runtimeType":"utcTime","value":"yesterday"})",
      R"({"runtimeType":"bitString","bits":[true,0]})",
      R"({"runtimeType":"structure","elements":[{"runtimeType":"uint64","value":5}]})",
      R"({"runtimeType":"structure","elements":[{"runtimeType":"int32","value":"5"}]})",
      R"({"runtimeType":"array","elements":[5]})",
  };
  for (const auto* text : cases) {
    SCOPED_TRACE(text);
    const auto read = parseValueArgument(text);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().text.find("'" + std::string(text) + "' "), 0U);
  }
}

/// What the bridge makes of a command line.
template <class Expected>
Expected atTheBridge(const std::vector<const char*>& arguments) {
  const auto parsed = parse(arguments);
  if (const auto* end = std::get_if<CtlEnd>(&parsed)) throw std::runtime_error(end->text);
  const auto text = std::visit(
      [](const auto& command) -> std::optional<std::string> {
        if constexpr (requires { commandText(command); }) return commandText(command).end();
        return {};
      },
      std::get<CtlOptions>(parsed).command);
  return std::get<Expected>(BridgeCommand::fromText(text.value()).value().payload);
}

TEST(TarnlinkctlCommands, PublicationArrivesWithEveryOption) {
  const auto config = atTheBridge<BridgeCommand::PublishGoose>({"publish",
                                                                "--gocb-ref",
                                                                "I/LLN0$GO$g",
                                                                "--app-id",
                                                                "0x3001",
                                                                "--dataset",
                                                                "I/LLN0$ds",
                                                                "--conf-rev",
                                                                "7",
                                                                "--go-id",
                                                                "trip",
                                                                "--interface",
                                                                "eth1",
                                                                "--vlan-id",
                                                                "100",
                                                                "--dst-mac",
                                                                "01:0C:CD:01:00:07",
                                                                "--vlan-priority",
                                                                "6",
                                                                "--src-mac",
                                                                "02:00:00:00:00:01",
                                                                "--profile",
                                                                "fast",
                                                                "--ttl",
                                                                "4000",
                                                                "--test",
                                                                "--needs-commission",
                                                                "--st-num",
                                                                "5",
                                                                "--sq-num",
                                                                "6",
                                                                "--lock-st-num",
                                                                "--lock-sq-num",
                                                                "bool:true",
                                                                "int:-5"})
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
}

TEST(TarnlinkctlCommands, TheShortestPublicationIsWhole) {
  const auto config =
      atTheBridge<BridgeCommand::PublishGoose>({"publish", "bool:true", "--gocb-ref", "I/L$GO$g"})
          .config;
  EXPECT_EQ(config.dataSetRef, "I/L$g");
  EXPECT_EQ(config.goId, "I/L$GO$g");
  EXPECT_EQ(config.appId, kDefaultGooseAppId);
  EXPECT_EQ(config.retransmissionProfile, RetransmissionProfile::standard());
}

TEST(TarnlinkctlCommands, OthersArriveAsMeant) {
  const auto sv = atTheBridge<BridgeCommand::PublishSvApdu>(
      {"publish-sv", "40000008ff", "--interface", "eth1", "--dst-mac", "01:0C:CD:04:00:07",
       "--vlan-id", "5", "--vlan-priority", "3"});
  EXPECT_EQ(sv.pdu, (Bytes{0x40, 0x00, 0x00, 0x08, 0xFF}));
  EXPECT_EQ(sv.config,
            (SvPublishConfig{"eth1", MacAddress{0x01, 0x0C, 0xCD, 0x04, 0x00, 0x07}, 5, 3}));
  using Unpublish = BridgeCommand::UnpublishGoose;
  EXPECT_EQ(atTheBridge<Unpublish>({"unpublish"}).goCBRef, std::nullopt);
  EXPECT_EQ(atTheBridge<Unpublish>({"unpublish", "--gocb-ref", "A"}).goCBRef, "A");
  using SubscribeSv = BridgeCommand::SubscribeSv;
  EXPECT_EQ(atTheBridge<SubscribeSv>({"subscribe", "sv"}).appIdFilter, std::nullopt);
  EXPECT_EQ(atTheBridge<SubscribeSv>({"subscribe", "sv", "--app-id", "0x4000"}).appIdFilter,
            0x4000);
  EXPECT_EQ(atTheBridge<BridgeCommand::SubscribeGoose>({"subscribe", "goose", "--app-id", "0x4000"})
                .appIdFilter,
            "16384");
}

TEST(TarnlinkctlPrinting, SampledValuesWithAndWithoutPayload) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"pduBase64":"QAAACAAAAABgAA==","dstMac":"D","srcMac":"S","vlanId":5,"receivedAt":"T"})",
       "T appId=16384 vlan=5 S to D 10 octets: 40000008000000006000"},
      {R"({"pduBase64":"QA==","dstMac":"D","srcMac":"S","vlanId":null,"receivedAt":"T"})",
       "T appId=? S to D 1 octets: 40"},
      {R"({"dstMac":"D","srcMac":"S","receivedAt":"T"})", "T appId=? S to D ?"},
  };
  for (const auto& [event, line] : cases) EXPECT_EQ(svLine(*parseJsonObject(event)), line);
}

TEST(TarnlinkctlPrinting, ValuesAsPeopleReadThem) {
  struct Case {
    const char* json;
    const char* text;
  };
  const Case cases[] = {
      {R"({"runtimeType":"boolean","value":true})", "true"},
      {R"({"runtimeType":"int32","value":-5})", "-5"},
      {R"({"runtimeType":"float32","value":1.2000000476837158})", "1.2"},
      {R"({"runtimeType":"float64","value":1.2000000476837158})", "1.2000000476837158"},
      {R"({"runtimeType":"bitString","bits":[false,true,true]})", "0b011"},
      {R"({"runtimeType":"octetString","bytes":[0,10,255]})", "0x000AFF"},
      {R"({"runtimeType":"utcTime","value":"2024-05-17T08:15:30.125Z"})",
       "2024-05-17T08:15:30.125Z"},
      {R"({"runtimeType":"visibleString","value":"clear \u001b[2J or \u009b2J, ä\u007f"})",
       R"("clear \x1B[2J or \xC2\x9B2J, ä\x7F")"},
      {R"({"runtimeType":"structure","elements":[{"runtimeType":"uint32","value":1},)"
       R"({"runtimeType":"array","elements":[{"runtimeType":"boolean","value":false}]}]})",
       "{1, [false]}"},
      {R"({"runtimeType":"boolean","value":"yes"})", "?"},
      {R"({})", "?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(valueText(*parseJsonObject(c.json)), c.text);
  }
}

}  // namespace
}  // namespace tarnlink
