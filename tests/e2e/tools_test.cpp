// The tools as people run them, against the real daemon on a veth pair.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "client/bridge_client.h"
#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "tests/support/daemon.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/hex_bytes.h"
#include "tests/support/network_namespace.h"
#include "tests/support/program.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;

// Sanitizers make all of it many times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kSvRate = 2'000;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr std::size_t kSvRate = 2'000;
#else
constexpr std::size_t kSvRate = 20'000;
#endif
#else
constexpr std::size_t kSvRate = 20'000;
#endif

struct Ended {
  int exitCode;
  std::string output;
};

class ToolsTest : public ProcessBusTest {
 protected:
  void SetUp() override {
    ProcessBusTest::SetUp();
    daemon.emplace(std::vector<std::string>{"--interface", kBus, "--low-latency"});
    ASSERT_TRUE(daemon->waitForLog("[KorvelTarnlink] Listening on port 8765"));
    int exitCode = 0;
    code = outputOf({"--show-pairing-code", "--preferences", daemon->preferences()}, exitCode);
    ASSERT_EQ(exitCode, 0);
    code.pop_back();
  }

  std::filesystem::path newOutputFile() {
    return daemon->preferences().replace_filename("output" + std::to_string(++outputs_));
  }
  std::unique_ptr<Program> startCtl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARNLINKCTL);
    return std::make_unique<Program>(std::move(arguments), newOutputFile(),
                                     std::map<std::string, std::string>{{"TARNLINK_CODE", code}});
  }
  Ended ctl(std::vector<std::string> arguments) {
    const auto program = startCtl(std::move(arguments));
    const int exitCode = program->wait();
    return {exitCode, program->output()};
  }
  std::unique_ptr<Program> startIed(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {TARNLINK_IED, "--interface", kIed});
    return std::make_unique<Program>(std::move(arguments), newOutputFile());
  }

  std::optional<Daemon> daemon;
  std::string code;

 private:
  int outputs_ = 0;
};

TEST_F(ToolsTest, PublicationIsOnTheWireUntilItIsUnpublished) {
  FrameRecorder recorder(kIed, "ether proto 0x88b8");
  const auto published =
      ctl({"publish", "--gocb-ref", "IED1/LLN0$GO$g1", "bool:true", "int:-5",
           R"({"runtimeType":"structure","elements":[{"runtimeType":"float32","value":1.5}]})"});
  EXPECT_EQ(published.exitCode, 0);
  EXPECT_EQ(published.output,
            "publishing IED1/LLN0$GO$g1 (active interface: bus0, 1 published so far)\n");
  const auto frames = recorder.frames(3);
  ASSERT_GE(frames.size(), 3U);
  const auto pdu = GoosePdu::parse(EthernetFrame::parse(frames[2].octets)->payload);
  ASSERT_TRUE(pdu);
  EXPECT_EQ(pdu->datSet, "IED1/LLN0$g1");
  EXPECT_EQ(pdu->stNum, 1U);
  EXPECT_EQ(pdu->sqNum, 2U);
  using Value = GooseDataValue;
  EXPECT_EQ(pdu->allData, (std::vector<Value>{Value::boolean(true), Value::integer(-5),
                                              Value::structure({Value::floatingPoint(1.5F)})}));

  EXPECT_EQ(ctl({"unpublish", "--gocb-ref", "IED1/LLN0$GO$g1"}).exitCode, 0);
  recorder.clear();
  // The standard profile would have sent every second by now.
  EXPECT_TRUE(recorder.frames(1, 1500ms).empty());
}

TEST_F(ToolsTest, RefusalsComeWithTheBridgesCode) {
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    const char* says;
  } cases[] = {
      {{"publish", "--gocb-ref", "A", "--interface", "absent0", "bool:true"}, 4, "(code 2)"},
      {{"publish", "--gocb-ref", "A", "--interface", "a b", "bool:true"}, 4, "(code 6)"},
      {{"publish", "--gocb-ref", "A", "--vlan-id", "100", "bool:true"}, 4, "(code 3)"},
      {{"publish", "--gocb-ref", "A", "--vlan-id", "4095", "bool:true"}, 4, "(code -1): vlanId: "},
      {{"publish-sv", "4000", "--vlan-id", "4095"}, 4, "(code -1): vlanId: "},
      {{"publish", "--gocb-ref", "A", "octets:" + std::string(3000, 'A')}, 4, "(code 2)"},
      {{"publish", "--gocb-ref", "A", "string:\xFF"}, 2, "not UTF-8"},
      {{"publish-sv", "4000", "--interface", "absent0"}, 4, "(code 5)"},
      {{"publish-sv", "4000", "--interface", "absent0", "--count", "9"}, 4, "(code 5)"},
      {{"set-interface", "absent0"}, 2, "there are:\n  bus0\n  ied0\n"},
  };
  for (const auto& [arguments, exitCode, says] : cases) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const auto ended = ctl(arguments);
    EXPECT_EQ(ended.exitCode, exitCode);
    EXPECT_THAT(ended.output, HasSubstr(says));
  }
}

TEST_F(ToolsTest, SampledValuesGoOutAndComeBackUnchanged) {
  FrameRecorder recorder(kIed, "ether proto 0x88ba or (vlan and ether proto 0x88ba)");
  const auto others = startCtl({"subscribe", "sv", "--app-id", "0x4001", "--count", "1"});
  const auto subscriber = startCtl({"subscribe", "sv", "--app-id", "0x4000", "--count", "2"});
  ASSERT_TRUE(subscriber->waitForOutput("subscribed"));
  ASSERT_TRUE(others->waitForOutput("subscribed"));
  const auto sent = ctl({"publish-sv", "4000000C00000000AABBCCDD", "--vlan-id", "100", "--count",
                         "2", "--interval", "20"});
  EXPECT_EQ(sent.exitCode, 0);
  EXPECT_EQ(sent.output, "sent 2 frames of 12 octets after the EtherType\n");
  const auto frames = recorder.frames(2);
  ASSERT_EQ(frames.size(), 2U);
  const auto frame = EthernetFrame::parse(frames[1].octets, kEtherTypeSv);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->vlanId, 100);
  EXPECT_EQ(Bytes(frame->payload.begin(), frame->payload.end()),
            hexBytes("4000000C00000000AABBCCDD"));
  EXPECT_EQ(subscriber->wait(), 0);
  EXPECT_THAT(subscriber->output(),
              AllOf(HasSubstr(" appId=16384 vlan=100 "),
                    HasSubstr(" to 01:0C:CD:04:00:01 12 octets: 4000000C00000000AABBCCDD\n")));
  EXPECT_THAT(others->output(), ::testing::Not(HasSubstr("octets")));
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
  EXPECT_TRUE(subscriber->waitForOutput(
      "subscribed on bus0\nno message for 5 s: only Sampled Values arrive on bus0"));
  for (int i = 0; i < 500 && captures() != before; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(captures(), before);
}

TEST_F(ToolsTest, SimulatedIedChangesOnDemandAndHearsTheBridge) {
  FrameRecorder recorder(kBus, "vlan 100 and ether proto 0x88b8");
  const auto ied = startIed({"--interval", "0", "--listen"});
  ASSERT_TRUE(ied->waitForOutput("New state of BAY1LD0/LLN0$GO$gcbInterlocking"));
  ASSERT_EQ(::kill(ied->pid(), SIGUSR1), 0);
  ASSERT_EQ(
      ctl({"publish", "--gocb-ref", "IED1/LLN0$GO$g1", "--profile", "single", "int:5"}).exitCode,
      0);
  EXPECT_TRUE(ied->waitForOutput("IED1/LLN0$GO$g1 st=1 sq=0 values: 5\n"));
  // Seven of the first state's frames come within 126 ms unless the second state is before them.
  std::vector<std::uint32_t> states;
  for (const auto& frame : recorder.frames(8)) {
    const auto pdu = GoosePdu::parse(EthernetFrame::parse(frame.octets)->payload);
    ASSERT_TRUE(pdu);
    states.push_back(pdu->stNum);
  }
  EXPECT_EQ(states.front(), 1U);
  EXPECT_EQ(states.back(), 2U);
  EXPECT_THAT(ied->output(), ::testing::Not(HasSubstr("BAY1LD0/LLN0$GO$gcbTrip st=")));
  ASSERT_EQ(::kill(ied->pid(), SIGTERM), 0);
  EXPECT_EQ(ied->wait(), 0);
  EXPECT_THAT(ied->output(), ::testing::ContainsRegex("Sent [0-9]+ frames\n"));
  const auto lost = startIed({"--interval", "20"});
  ASSERT_TRUE(lost->waitForOutput("New state"));
  NetworkNamespace::removeLink(kIed);
  EXPECT_EQ(lost->wait(), 1);
  EXPECT_THAT(lost->output(), HasSubstr("the interface ied0 has gone"));
}

TEST_F(ToolsTest, SampledValuesAtFullRateReachASubscriberWithoutLoss) {
  constexpr std::size_t kSeconds = 3;
  auto client = BridgeClient::connect({"127.0.0.1"}, 8765).value();
  client.authenticate(code).value();
  client.send({{"cmd", "subscribe_sv"}}).value();
  ASSERT_TRUE(daemon->waitForLog("SV: capture started"));
  const auto begin = std::chrono::steady_clock::now();
  const auto ied = startIed({"--sv", "--no-goose", "--sv-rate", std::to_string(kSvRate), "--count",
                             std::to_string(kSvRate * kSeconds)});
  std::size_t received = 0;
  while (received < kSvRate * kSeconds && client.await("sv_apdu", 2s)) ++received;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(ied->wait(), 0);
  EXPECT_THAT(ied->output(), HasSubstr("Sent " + std::to_string(kSvRate * kSeconds) + " frames\n"));
  EXPECT_EQ(received, kSvRate * kSeconds);
  // A bridge that falls behind would go on delivering after the last frame was sent.
  EXPECT_LT(took.count(), kSeconds * 2.0);
  RecordProperty("seconds", std::to_string(took.count()));
}

}  // namespace
}  // namespace tarnlink::test
