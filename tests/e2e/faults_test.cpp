// Interfaces that go down, vanish, come back or are refused beneath the real daemon: the status
// stays true, the log says once what happened, and the next request works.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

const Json kSubscribe{{"cmd", "subscribe_goose"}};
const Json kUnsubscribe{{"cmd", "unsubscribe_goose"}};

class FaultsTest : public BridgeEndToEndTest {
 protected:
  // Lines in the log, up to now, with the text.
  std::ptrdiff_t lines(const std::string& text) {
    daemon->waitForLog("(reads what there is)", 50ms);
    const auto& log = daemon->log();
    return std::count_if(log.begin(), log.end(),
                         [&](const auto& line) { return line.find(text) != line.npos; });
  }
  void expectFrame(Client& client, std::uint32_t sqNum) {
    peer.reset();
    send(gooseFrame(sqNum, 0));
    EXPECT_EQ(client.next("goose_message")["message"]["sqNum"], sqNum);
  }
};

TEST_F(FaultsTest, ADeletedInterfaceIsToldAndTakenUpAgain) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_sv"}});
  client.say(kSubscribe);
  ASSERT_EQ(client.next("bridge_status")["isCapturing"], true);
  client.say(publication("A", {{"retransmissionProfile", "single"}}));
  ASSERT_EQ(client.next("bridge_status")["messagesPublished"], 1);

  NetworkNamespace::removeLink(kIed);
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], false);
  Client other(code);
  other.say(kSubscribe);
  EXPECT_EQ(other.next("error")["code"], 1);
  other.say(publication("A"));
  EXPECT_EQ(other.next("error")["code"], 2);
  EXPECT_EQ(lines("] ✗ capture on bus0 ended: "), 1);
  EXPECT_EQ(lines("] SV: ✗ capture on bus0 ended: "), 1);

  NetworkNamespace::addVethPair(kBus, kIed);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(daemon->waitForLog("✓ capture runs again on bus0", 8s)) << "GOOSE and SV";
  }
  expectFrame(client, 7);
  Client later(code);  // Without the broadcasts from before.
  FrameRecorder recorder(kIed, "ether proto 0x88b8");
  later.say(publication("A", {{"retransmissionProfile", "single"}}));
  EXPECT_EQ(later.next("bridge_status")["isCapturing"], true);
  EXPECT_EQ(recorder.frames(1).size(), 1U);
}

TEST_F(FaultsTest, ALinkThatGoesDownKeepsItsCaptureUntilItIsRenamed) {
  startDaemon();
  Client client(code);
  client.say(kSubscribe);
  ASSERT_EQ(client.next("bridge_status")["isCapturing"], true);
  client.say(publication("A", {{"retransmissionProfile", "fast"}}));
  ASSERT_EQ(client.next("bridge_status")["messagesPublished"], 1);

  NetworkNamespace::setUp(kBus, false);
  client.say(publication("B"));
  EXPECT_EQ(client.next("error")["code"], 2) << "told to who asks";
  lines("");
  const auto before = daemon->log().size();
  std::this_thread::sleep_for(300ms);
  lines("");
  EXPECT_EQ(daemon->log().size(), before) << "and not with every frame that is dropped";
  NetworkNamespace::setUp(kBus, true);
  expectFrame(client, 5);

  NetworkNamespace::setUp(kBus, false);
  NetworkNamespace::rename(kBus, "bus9");
  NetworkNamespace::setUp("bus9", true);
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], false);
  EXPECT_EQ(lines("✗ capture on bus0 ended: "), 1);
  Client other(code);
  other.say(kSubscribe);
  EXPECT_EQ(other.next("error")["code"], 1) << "there is no bus0 any more";
  client.say({{"cmd", "set_interface"}, {"interface", "bus9"}});
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true) << "its subscriber had stayed";
  expectFrame(client, 6);
  NetworkNamespace::removeLink("bus9");
}

TEST_F(FaultsTest, AFloodDoesNotHinderComingAndGoing) {
  startDaemon();
  std::atomic<bool> isOver = false;
  std::thread flood([&isOver] {
    const auto wire = systemSendHandles()->openSendHandle(kIed);
    const Bytes frame = gooseFrame(1, 0);
    while (!isOver) (*wire)->sendPacket(frame);
  });
  Client client(code);
  for (int i = 0; i < 20; ++i) {
    client.say(kSubscribe);
    EXPECT_EQ(client.next("bridge_status")["isCapturing"], true);
    EXPECT_NE(client.next("goose_message"), nullptr);
    client.say(kUnsubscribe);
    EXPECT_EQ(client.next("bridge_status")["isCapturing"], false);
  }
  isOver = true;
  flood.join();
  client.say(kSubscribe);
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true);
  expectFrame(client, 9);
}

// Last: this process does not get the privilege back.
TEST_F(FaultsTest, WithoutThePrivilegeEveryRequestSaysSo) {
  ASSERT_EQ(::prctl(PR_CAPBSET_DROP, CAP_NET_RAW, 0, 0, 0), 0);
  startDaemon();
  Client client(code);
  const std::pair<Json, Json> requests[] = {
      {kSubscribe, {{"error", "Start capture failed: permission denied"}, {"code", 1}}},
      {{{"cmd", "subscribe_sv"}}, {{"error", "SV capture failed: permission denied"}, {"code", 4}}},
  };
  for (auto [request, error] : requests) {
    error["event"] = "error";
    client.say(request);
    EXPECT_EQ(client.next("error"), error);
  }
  client.say(publication("A"));
  EXPECT_EQ(client.next("error")["code"], 2);
  EXPECT_EQ(lines("capture start failed: permission denied"), 2);
}

}  // namespace
}  // namespace tarnlink::test
