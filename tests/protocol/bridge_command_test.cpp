#include "protocol/bridge_command.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace tarnlink {
using namespace goosestack;
namespace {

using Command = BridgeCommand;

Command::Result decoded(const std::string& text) {
  return BridgeRequest::fromText(text).command;
}

TEST(BridgeCommandTest, WellFormedCommandsAreDecoded) {
  const SvPublishConfig defaults{"en0", {0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01}, 0, 4};
  const SvPublishConfig full{"eth0", {0x01, 0x0C, 0xCD, 0x04, 0x01, 0x02}, 65535, 255};
  const std::pair<std::string, Command::Payload> cases[] = {
      {R"("auth","token":"012345")", Command::Auth{"012345"}},
      {R"("auth","token":123456)", Command::Auth{""}},
      {R"("subscribe_goose","appIdFilter":1000,"goCBRefFilter":"cb")",
       Command::SubscribeGoose{{}, "cb"}},
      {R"("subscribe_goose","appIdFilter":"0x1000")", Command::SubscribeGoose{"0x1000", {}}},
      {R"("unsubscribe_goose","appIdFilter":1)", Command::UnsubscribeGoose{}},
      {R"("unpublish_goose","goCBRef":"cb")", Command::UnpublishGoose{"cb"}},
      {R"("unpublish_goose","goCBRef":"")", Command::UnpublishGoose{}},
      {R"("subscribe_sv","appIdFilter":16384)", Command::SubscribeSv{16384}},
      {R"("subscribe_sv","appIdFilter":"16384")", Command::SubscribeSv{}},
      {R"("unsubscribe_sv")", Command::UnsubscribeSv{}},
      {R"("publish_sv_apdu","pduBase64":"QAA=","dstMac":"no MAC","vlanId":1.5)",
       Command::PublishSvApdu{{0x40, 0}, defaults}},
      {R"("publish_sv_apdu","pduBase64":"","interface":"eth0","dstMac":"01:0C:CD:04:01:02",)"
       R"("vlanId":65535,"vlanPriority":255)",
       Command::PublishSvApdu{{}, full}},
      {R"("get_interfaces")", Command::GetInterfaces{}},
      {R"("set_interface","interface":"not a name")", Command::SetInterface{"not a name"}},
      {R"("ping","timestamp":-9223372036854775808)",
       Command::Ping{std::numeric_limits<std::int64_t>::min()}},
      {R"("ping","timestamp":9223372036854775808)", Command::Ping{0}},
      {R"("auth","cmd":"ping")", Command::Ping{0}}};
  for (const auto& [members, payload] : cases) {
    const auto command = decoded("{\"cmd\":" + members + "}");
    ASSERT_TRUE(command) << members;
    EXPECT_EQ(command->payload, payload) << members;
  }
}

TEST(BridgeCommandTest, EverythingElseIsNoCommandAndSaysWhy) {
  const std::string sv = R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=")";
  const std::string strict = sv + R"(,"strict":true)";
  const std::string mac = "dstMac: expected an address as 01:0C:CD:01:00:01, found ";
  EXPECT_TRUE(decoded(strict + R"(,"vlanId":4094,"vlanPriority":7,"requestId":1})"));
  const std::pair<std::string, std::string> cases[] = {
      {"not JSON", "no JSON object"},
      {R"(["ping"])", "no JSON object"},
      {R"({"ping":1e400})", "a number beyond the largest double"},
      {R"({})", "cmd: expected the name of a command, found nothing"},
      {R"({"cmd":"Ping"})", R"(cmd: expected the name of a command, found "Ping")"},
      {R"({"cmd":"set_interface","interface":7})", "interface: expected a string, found 7"},
      {R"({"cmd":"publish_goose","strict":1})", "strict: expected true or false, found 1"},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"QA A="})",
       R"(pduBase64: expected base64 with padding, found "QA A=")"},
      {sv + R"(,"vlanId":65536})", "vlanId: expected an integer from 0 to 65535, found 65536"},
      {sv + R"(,"vlanPriority":-1})", "vlanPriority: expected an integer from 0 to 255, found -1"},
      {strict + R"(,"vlanId":4095})", "vlanId: expected an integer from 0 to 4094, found 4095"},
      {strict + R"(,"vlanPriority":8})", "vlanPriority: expected an integer from 0 to 7, found 8"},
      {strict + R"(,"dstMac":")" + std::string(39, 'x') + "ää\"}",
       mac + '"' + std::string(39, 'x') + "…\""},
      {strict + R"(,"appId":1})", "appId: no member of publish_sv_apdu"}};
  for (const auto& [text, reason] : cases) {
    const auto command = decoded(text);
    ASSERT_FALSE(command) << text;
    EXPECT_EQ(command.error().reason(), reason);
  }
}

TEST(BridgeRequestTest, TheMarkIsAnIntegerOrAShortText) {
  const std::string longest(BridgeRequest::kMaxRequestId, 'x');
  const std::pair<std::string, std::optional<RequestId>> cases[] = {
      {R"(-9223372036854775808)", std::numeric_limits<std::int64_t>::min()},
      {R"(1e2)", 100},
      {R"("ä\u0001\"")", "ä\x01\""},
      {'"' + longest + '"', longest},
      {'"' + longest + "x\"", std::nullopt},
      {R"(1.5)", std::nullopt},
      {R"(null)", std::nullopt}};
  for (const auto& [text, id] : cases) {
    for (const bool isCommand : {true, false}) {
      const auto request = BridgeRequest::fromText(R"({"requestId":)" + text +
                                                   (isCommand ? R"(,"cmd":"ping"})" : "}"));
      EXPECT_EQ(request.id, id) << text;
      EXPECT_TRUE(request.wantsReason) << text;
      EXPECT_EQ(request.command.has_value(), isCommand && id.has_value()) << text;
    }
  }
}

}  // namespace
}  // namespace tarnlink
