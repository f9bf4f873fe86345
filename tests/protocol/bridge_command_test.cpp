#include "protocol/bridge_command.h"

#include <gtest/gtest.h>

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
      {R"({"cmd":"auth","token":"012345"})", Command::Auth{"012345"}},
      {R"({"cmd":"auth"})", Command::Auth{""}},
      {R"({"cmd":"auth","token":123456})", Command::Auth{""}},
      {R"({"cmd":"subscribe_goose"})", Command::SubscribeGoose{}},
      {R"({"cmd":"subscribe_goose","appIdFilter":1000,"goCBRefFilter":"cb"})",
       Command::SubscribeGoose{{}, "cb"}},
      {R"({"cmd":"subscribe_goose","appIdFilter":"0x1000"})",
       Command::SubscribeGoose{"0x1000", {}}},
      {R"({"cmd":"unsubscribe_goose","appIdFilter":1})", Command::UnsubscribeGoose{}},
      {R"({"cmd":"unpublish_goose","goCBRef":"cb"})", Command::UnpublishGoose{"cb"}},
      {R"({"cmd":"unpublish_goose","goCBRef":""})", Command::UnpublishGoose{}},
      {R"({"cmd":"unpublish_goose"})", Command::UnpublishGoose{}},
      {R"({"cmd":"subscribe_sv","appIdFilter":16384})", Command::SubscribeSv{16384}},
      {R"({"cmd":"subscribe_sv","appIdFilter":"16384"})", Command::SubscribeSv{}},
      {R"({"cmd":"unsubscribe_sv"})", Command::UnsubscribeSv{}},
      {R"({"cmd":"publish_sv_apdu","pduBase64":""})", Command::PublishSvApdu{{}, defaults}},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=","dstMac":"no MAC","vlanId":1.5})",
       Command::PublishSvApdu{{0x40, 0}, defaults}},
      {R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=","interface":"eth0",)"
       R"("dstMac":"01:0C:CD:04:01:02","vlanId":65535,"vlanPriority":255})",
       Command::PublishSvApdu{{0x40, 0}, full}},
      {R"({"cmd":"get_interfaces"})", Command::GetInterfaces{}},
      {R"({"cmd":"set_interface","interface":"not a name"})", Command::SetInterface{"not a name"}},
      {R"({"cmd":"ping","timestamp":-9223372036854775808})",
       Command::Ping{std::numeric_limits<std::int64_t>::min()}},
      {R"({"cmd":"ping","timestamp":"5"})", Command::Ping{0}},
      {R"({"cmd":"ping","timestamp":9223372036854775808})", Command::Ping{0}},
      {R"({"cmd":"auth","cmd":"ping"})", Command::Ping{0}}};
  for (const auto& [text, payload] : cases) {
    const auto command = decoded(text);
    ASSERT_TRUE(command) << text;
    EXPECT_EQ(command->payload, payload) << text;
  }
}

TEST(BridgeCommandTest, PublicationKeepsItsConfiguration) {
  const auto command =
      decoded(R"({"cmd":"publish_goose","appId":7,"goCBRef":"cb","dataSetRef":"ds","confRev":1})");
  ASSERT_TRUE(command);
  EXPECT_EQ(std::get<Command::PublishGoose>(command->payload).config.appId, 7);
}

TEST(BridgeCommandTest, EverythingElseIsNoCommand) {
  for (const std::string text :
       {R"(not JSON)",
        R"(["ping"])",
        R"({})",
        R"({"cmd":7})",
        R"({"cmd":null})",
        R"({"CMD":"ping"})",
        R"({"cmd":"Ping"})",
        R"({"cmd":"ping "})",
        R"({"cmd":"pin"})",
        R"({"cmd":""})",
        R"({"cmd":"publish_goose"})",
        R"({"cmd":"publish_goose","appId":7,"goCBRef":"cb","dataSetRef":"ds","confRev":-1})",
        R"({"cmd":"set_interface"})",
        R"({"cmd":"set_interface","interface":7})",
        R"({"cmd":"publish_sv_apdu"})",
        R"({"cmd":"publish_sv_apdu","pduBase64":7})",
        R"({"cmd":"publish_sv_apdu","pduBase64":"QA A="})",
        R"({"cmd":"publish_sv_apdu","pduBase64":"QAA"})",
        R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=","vlanId":65536})",
        R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=","vlanId":-1})",
        R"({"cmd":"publish_sv_apdu","pduBase64":"QAA=","vlanPriority":256})"}) {
    EXPECT_FALSE(decoded(text)) << text;
  }
}

TEST(BridgeCommandTest, AStrictCommandSaysWhatIsWrong) {
  const std::string sv = R"({"cmd":"publish_sv_apdu","strict":true,"pduBase64":"QAA=")";
  EXPECT_TRUE(decoded(sv + R"(,"vlanId":4094,"vlanPriority":7,"requestId":1})"));
  const std::pair<std::string, std::string> cases[] = {
      {"[]", "no JSON object"},
      {R"({"cmd":"Ping"})", R"(cmd: expected the name of a command, found "Ping")"},
      {R"({"cmd":"set_interface"})", "interface: expected a string, found nothing"},
      {R"({"cmd":"publish_goose","strict":1})", "strict: expected true or false, found 1"},
      {R"({"cmd":"publish_goose","strict":true})",
       "appId: expected an integer from 0 to 65535, found nothing"},
      {sv + R"(,"pduBase64":"QA A="})",
       R"(pduBase64: expected base64 with padding, found "QA A=")"},
      {sv + R"(,"dstMac":"nowhere"})",
       R"(dstMac: expected an address as 01:0C:CD:01:00:01, found "nowhere")"},
      {sv + R"(,"dstMac":")" + std::string(39, 'x') + "ää\"}",
       "dstMac: expected an address as 01:0C:CD:01:00:01, found \"" + std::string(39, 'x') + "…\""},
      {sv + R"(,"vlanId":4095})", "vlanId: expected an integer from 0 to 4094, found 4095"},
      {sv + R"(,"vlanPriority":8})", "vlanPriority: expected an integer from 0 to 7, found 8"},
      {sv + R"(,"interface":["eth0"]})", "interface: expected a string, found an array"},
      {sv + R"(,"appId":1})", "appId: no member of publish_sv_apdu"}};
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
      {R"("")", ""},
      {R"("ä\u0001\"")", "ä\x01\""},
      {'"' + longest + '"', longest},
      {'"' + longest + "x\"", std::nullopt},
      {R"(9223372036854775808)", std::nullopt},
      {R"(1.5)", std::nullopt},
      {R"(null)", std::nullopt},
      {R"(true)", std::nullopt},
      {R"([1])", std::nullopt}};
  for (const auto& [text, id] : cases) {
    for (const bool isCommand : {true, false}) {
      const auto request = BridgeRequest::fromText(R"({"requestId":)" + text +
                                                   (isCommand ? R"(,"cmd":"ping"})" : "}"));
      EXPECT_EQ(request.id, id) << text;
      EXPECT_EQ(request.command.has_value(), isCommand && id.has_value()) << text;
    }
  }
}

}  // namespace
}  // namespace tarnlink
