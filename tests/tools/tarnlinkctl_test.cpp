#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "server/json_value.h"
#include "tools/tarnlinkctl/options.h"
#include "tools/tarnlinkctl/printing.h"

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
