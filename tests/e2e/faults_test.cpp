// Interfaces that go down, vanish, come back or are refused beneath the real daemon: the status
// stays true, the log says once what happened, and the next request works.
#include <linux/capability.h>
#include <sys/prctl.h>

#include <algorithm>
#include <thread>

#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
namespace {

// Not what the bridge itself publishes.
const Json kSubscribe{{"cmd", "subscribe_goose"}, {"goCBRefFilter", "gcb01"}};

class FaultsTest : public BridgeEndToEndTest {
 protected:
  /// Lines in the log with the text, once it is quiet.
  std::ptrdiff_t lines(const std::string& text) {
    std::this_thread::sleep_for(50ms);
    const auto log = daemon->log();
    return std::count_if(log.begin(), log.end(),
                         [&](const auto& line) { return line.find(text) != line.npos; });
  }
  void expectFrame(Client& client, std::uint32_t sqNum) {
    peer.reset();
    send(gooseFrame(sqNum));
    EXPECT_EQ(client.next("goose_message")["message"]["sqNum"], sqNum);
  }
  int errorOf(const Json& command) {
    Client client(code);
    client.say(command);
    return client.next("error")["code"];
  }
};

TEST_F(FaultsTest, ADeletedInterfaceIsToldAndTakenUpAgain) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_sv"}});
  client.say(kSubscribe);
  ASSERT_EQ(client.next("bridge_status")["isCapturing"], true);
  client.say(publication("A", "single"));
  ASSERT_EQ(client.next("bridge_status")["messagesPublished"], 1);

  NetworkNamespace::removeLink(kIed);
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], false);
  EXPECT_EQ(errorOf(kSubscribe), 1);
  EXPECT_EQ(errorOf(publication("A")), 2);
  EXPECT_EQ(lines("] ✗ capture on bus0 ended: "), 1);
  EXPECT_EQ(lines("] SV: ✗ capture on bus0 ended: "), 1);

  NetworkNamespace::addVethPair(kBus, kIed);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(daemon->waitForLog("✓ capture runs again on bus0", 8s)) << "GOOSE and SV";
  }
  expectFrame(client, 7);
  FrameRecorder recorder(kIed, "ether proto 0x88b8");
  client.say(publication("A", "single"));
  EXPECT_EQ(recorder.frames(1).size(), 1U);
}

TEST_F(FaultsTest, ALinkThatGoesDownKeepsItsCaptureUntilItIsRenamed) {
  startDaemon();
  Client client(code);
  client.say(kSubscribe);
  ASSERT_EQ(client.next("bridge_status")["isCapturing"], true);
  client.say(publication("A", "fast"));
  ASSERT_EQ(client.next("bridge_status")["messagesPublished"], 1);

  NetworkNamespace::setUp(kBus, false);
  EXPECT_EQ(errorOf(publication("B")), 2) << "told to who asks";
  const auto before = lines("");
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(lines(""), before) << "and not with every frame that is dropped";
  NetworkNamespace::setUp(kBus, true);
  expectFrame(client, 5);

  NetworkNamespace::setUp(kBus, false);
  NetworkNamespace::rename(kBus, "bus9");
  NetworkNamespace::setUp("bus9", true);
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], false);
  EXPECT_EQ(lines("✗ capture on bus0 ended: "), 1);
  EXPECT_EQ(errorOf(kSubscribe), 1) << "there is no bus0 any more";
  client.say({{"cmd", "set_interface"}, {"interface", "bus9"}});
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true) << "its subscriber had stayed";
  expectFrame(client, 6);
  NetworkNamespace::removeLink("bus9");
}

// Last: this process does not get the privilege back.
TEST_F(FaultsTest, WithoutThePrivilegeEveryRequestSaysSo) {
  ASSERT_EQ(::prctl(PR_CAPBSET_DROP, CAP_NET_RAW, 0, 0, 0), 0);
  startDaemon();
  EXPECT_EQ(errorOf(kSubscribe), 1);
  EXPECT_EQ(errorOf({{"cmd", "subscribe_sv"}}), 4);
  EXPECT_EQ(errorOf(publication("A")), 2);
  EXPECT_EQ(lines("capture start failed: permission denied"), 2);
  EXPECT_EQ(lines("No CAP_NET_RAW"), 1);
}

}  // namespace
}  // namespace tarnlink::test
