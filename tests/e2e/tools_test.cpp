// The tools as people run them, against the real daemon on a veth pair.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>

#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

// Sanitizers make all of it many times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARNLINK_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARNLINK_SANITIZED
#endif
#endif
#ifdef TARNLINK_SANITIZED
constexpr std::size_t kSvRate = 2'000;
#else
constexpr std::size_t kSvRate = 20'000;
#endif

class ToolsTest : public BridgeEndToEndTest {
 protected:
  void SetUp() override {
    BridgeEndToEndTest::SetUp();
    startDaemon();
  }
  std::unique_ptr<Program> startCtl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARNLINKCTL);
    return std::make_unique<Program>(std::move(arguments),
                                     std::map<std::string, std::string>{{"TARNLINK_CODE", code}});
  }
  /// What it wrote, and with which exit code it ended.
  std::string ctl(std::vector<std::string> arguments) {
    const auto program = startCtl(std::move(arguments));
    const int exitCode = program->wait();
    return program->output() + "exit code " + std::to_string(exitCode);
  }
  static std::unique_ptr<Program> startIed(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {TARNLINK_IED, "--interface", kIed});
    return std::make_unique<Program>(std::move(arguments));
  }
};

GoosePdu pduOf(const RecordedFrame& frame) {
  return GoosePdu::parse(EthernetFrame::parse(frame.octets)->payload).value();
}

TEST_F(ToolsTest, PublicationIsOnTheWireUntilItIsUnpublished) {
  FrameRecorder recorder(kIed, "ether proto 0x88b8");
  EXPECT_EQ(
      ctl({"publish", "--gocb-ref", "IED1/LLN0$GO$g1", "bool:true", "int:-5",
           R"({"runtimeType":"structure","elements":[{"runtimeType":"float32","value":1.5}]})"}),
      "publishing IED1/LLN0$GO$g1 (active interface: bus0, 1 published so far)\nexit code 0");
  const auto frames = recorder.frames(3);
  ASSERT_GE(frames.size(), 3U);
  const auto pdu = pduOf(frames[2]);
  EXPECT_EQ(pdu.datSet, "IED1/LLN0$g1");
  EXPECT_EQ(pdu.sqNum, 2U);
  using Value = GooseDataValue;
  EXPECT_EQ(pdu.allData, (std::vector<Value>{Value::boolean(true), Value::integer(-5),
                                             Value::structure({Value::floatingPoint(1.5F)})}));
  EXPECT_THAT(ctl({"unpublish", "--gocb-ref", "IED1/LLN0$GO$g1"}), HasSubstr("exit code 0"));
  recorder.clear();
  // The standard profile would have sent every second by now.
  EXPECT_TRUE(recorder.frames(1, 1500ms).empty());
}

TEST_F(ToolsTest, RefusalsComeWithTheBridgesCode) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"publish", "--gocb-ref", "A", "--interface", "absent0", "bool:true"}, "(code 2)"},
      {{"publish", "--gocb-ref", "A", "--vlan-id", "4095", "bool:true"}, "(code -1): vlanId: "},
      {{"publish-sv", "4000", "--interface", "absent0", "--count", "9"}, "(code 5)"},
  };
  for (const auto& [arguments, says] : cases) {
    EXPECT_THAT(ctl(arguments), AllOf(HasSubstr(says), HasSubstr("exit code 4")));
  }
}

TEST_F(ToolsTest, SampledValuesGoOutAndComeBackUnchanged) {
  FrameRecorder recorder(kIed, "ether proto 0x88ba or (vlan and ether proto 0x88ba)");
  const auto others = startCtl({"subscribe", "sv", "--app-id", "0x4001", "--count", "1"});
  const auto subscriber = startCtl({"subscribe", "sv", "--app-id", "0x4000", "--count", "2"});
  ASSERT_TRUE(subscriber->waitForOutput("subscribed"));
  ASSERT_TRUE(others->waitForOutput("subscribed"));
  EXPECT_EQ(ctl({"publish-sv", "4000000C00000000AABBCCDD", "--vlan-id", "100", "--count", "3",
                 "--interval", "100"}),
            "sent 3 frames of 12 octets after the EtherType\nexit code 0");
  const auto frames = recorder.frames(3);
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_GT(frames[2].time - frames[0].time, 150ms);
  EXPECT_EQ(EthernetFrame::parse(frames[1].octets, kEtherTypeSv).value().vlanId, 100);
  EXPECT_EQ(subscriber->wait(), 0);
  EXPECT_THAT(subscriber->output(),
              AllOf(HasSubstr(" appId=16384 vlan=100 "),
                    HasSubstr(" to 01:0C:CD:04:00:01 12 octets: 4000000C00000000AABBCCDD\n")));
  EXPECT_THAT(others->output(), Not(HasSubstr("octets")));
}

TEST_F(ToolsTest, SilenceIsExplainedAndLeavesNoCaptureBehind) {
  const auto ied = startIed({"--sv", "--no-goose"});
  const auto captures = [] {
    std::ifstream sockets("/proc/self/net/packet");
    return std::count(std::istreambuf_iterator<char>(sockets), {}, '\n');
  };
  ASSERT_TRUE(ied->waitForOutput("Sending"));
  const auto subscriber = startCtl({"subscribe", "goose"});
  ASSERT_TRUE(subscriber->waitForOutput("subscribed on bus0\n"));
  const auto before = captures();
  EXPECT_TRUE(
      subscriber->waitForOutput("\nno message for 5 s: only Sampled Values arrive on bus0"));
  for (int i = 0; i < 500 && captures() != before; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(captures(), before);
}

TEST_F(ToolsTest, SimulatedIedChangesOnDemandAndHearsTheBridge) {
  FrameRecorder recorder(kBus, "vlan 100 and ether proto 0x88b8");
  const auto ied = startIed({"--interval", "0", "--listen"});
  ASSERT_TRUE(ied->waitForOutput("New state of BAY1LD0/LLN0$GO$gcbInterlocking"));
  ied->signal(SIGUSR1);
  ctl({"publish", "--gocb-ref", "IED1/LLN0$GO$g1", "--profile", "single", "int:5"});
  EXPECT_TRUE(ied->waitForOutput("IED1/LLN0$GO$g1 st=1 sq=0 values: 5\n"));
  // Seven of the first state's frames come within 126 ms unless the second state is before them.
  const auto frames = recorder.frames(8);
  EXPECT_EQ(pduOf(frames.front()).stNum, 1U);
  EXPECT_EQ(pduOf(frames.back()).stNum, 2U);
  EXPECT_THAT(ied->output(), Not(HasSubstr("BAY1LD0/LLN0$GO$gcbTrip st="))) << "its own";
  EXPECT_EQ(ied->end(), 0);
  EXPECT_THAT(ied->output(), ::testing::ContainsRegex("Sent [0-9]+ frames\n"));
  const auto lost = startIed({"--interval", "20"});
  ASSERT_TRUE(lost->waitForOutput("New state"));
  NetworkNamespace::removeLink(kIed);
  EXPECT_EQ(lost->wait(), 1);
  EXPECT_THAT(lost->output(), HasSubstr("the interface ied0 has gone"));
}

TEST_F(ToolsTest, AReplayThatFailsSaysSo) {
  const auto ied = startIed({"--replay", "/nonexistent"});
  EXPECT_EQ(ied->wait(), 1);
  EXPECT_THAT(ied->output(), HasSubstr("Sent 0 frames\ntarnlink-ied: cannot replay /nonexistent"));
}

TEST_F(ToolsTest, SampledValuesAtFullRateReachASubscriberWithoutLoss) {
  constexpr std::size_t kFrames = kSvRate * 3;
  // Reads without understanding, so that the bridge is what is measured.
  auto client = WebSocketClient::connect("127.0.0.1", 8765).value();
  client.sendText(R"({"cmd":"auth","token":")" + code + "\"}").value();
  client.sendText(R"({"cmd":"subscribe_sv"})").value();
  ASSERT_TRUE(daemon->waitForLog("SV: capture started"));
  const auto begin = std::chrono::steady_clock::now();
  const auto ied = startIed({"--sv", "--no-goose", "--sv-rate", std::to_string(kSvRate), "--count",
                             std::to_string(kFrames)});
  std::size_t received = 0;
  while (received < kFrames) {
    const auto message = client.receive(2s);
    if (!message) break;
    if (message->data.find("\"sv_apdu\"") != std::string::npos) ++received;
  }
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(ied->wait(), 0);
  EXPECT_THAT(ied->output(), HasSubstr("Sent " + std::to_string(kFrames) + " frames\n"));
  EXPECT_EQ(received, kFrames);
  // A bridge that falls behind would go on delivering after the last frame was sent.
  EXPECT_LT(took, 6s);
}

}  // namespace
}  // namespace tarnlink::test
