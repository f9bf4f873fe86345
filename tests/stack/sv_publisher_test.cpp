#include "stack/sv_publisher.h"

#include <gmock/gmock.h>

#include <boost/asio/thread_pool.hpp>
#include <optional>

#include "goosestack/ethernet_frame.h"
#include "goosestack/sv_receiver.h"
#include "stack/sv_frame_decoder.h"
#include "tests/stack/publishing_fixtures.h"
#include "tests/support/network_namespace.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using Status = SendOutcome::Status;
using ::testing::ElementsAre;

const Bytes kPdu{0x40, 0x00, 0x00, 0x0A, 0, 0, 0, 0, 0x60, 0x00};

SvPublishConfig to(const std::string& interface, std::uint16_t vlanId = 0) {
  return {interface, {0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01}, vlanId, 4};
}

class Sv : public test::ProcessBusTest {
 protected:
  GooseResult<void> publish(SvPublishing& publisher, const SvPublishConfig& config) {
    return test::runAwaitable(publisher.publishApdu(kPdu, config));
  }
  // Its thread must come into being inside the network that SetUp() makes.
  void SetUp() override {
    ProcessBusTest::SetUp();
    pool.emplace(1);
  }
  std::optional<boost::asio::thread_pool> pool;
};

TEST_F(Sv, PublisherKeepsOneHandleAndCountsWhatWasSent) {
  auto wire = std::make_shared<test::FakeWire>();
  auto publisher = std::make_shared<SvPublisher>(pool->get_executor(), wire);
  const struct Step {
    std::string interface;
    std::deque<SendOutcome> outcomes;
    std::optional<GooseError> error;
    int opened;          // Handles so far.
    std::int64_t stats;  // Afterwards.
  } steps[] = {
      {"bus0", {}, {}, 1, 1},
      {"bus0", {}, {}, 1, 2},
      {"bus1", {}, {}, 2, 3},
      // Never tried again by another call of libpcap, and the handle stays.
      {"bus1",
       {{Status::failed, "send: Network is down"}},
       GooseError::sendFailed("send: Network is down"),
       2,
       3},
      {"bus1", {{Status::failed, ""}}, GooseError::sendFailed("pcap_sendpacket failed"), 2, 3},
      {"bus1", {}, {}, 2, 4},
      {"bus1", {{Status::interfaceGone, "gone"}}, GooseError::sendFailed("gone"), 2, 4},
      {"bus1", {}, {}, 3, 5},
      {"nomac0", {}, GooseError::sendFailed("MAC für 'nomac0' nicht gefunden"), 4, 5},
      {"absent0", {}, GooseError::pcapOpenFailed("No such device exists"), 4, 5},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    wire->outcomesOf(step.outcomes);
    const auto result = publish(*publisher, to(step.interface));
    EXPECT_EQ(result.has_error() ? std::optional(result.error()) : std::nullopt, step.error);
    EXPECT_EQ(wire->opened, step.opened);
    EXPECT_LE(wire->open, 1);
    EXPECT_EQ(publisher->stats(), step.stats);
  }
  const auto frames = wire->sent();
  ASSERT_EQ(frames.size(), 5U);
  EXPECT_EQ(EthernetFrame::parse(frames[1].octets, kEtherTypeSv)->srcMac, test::kBusMac);
  EXPECT_EQ(EthernetFrame::parse(frames[2].octets, kEtherTypeSv)->srcMac, test::kOtherMac);
  EXPECT_EQ(frames[2].priority, 4);
  test::runAwaitable(publisher->stop());
  EXPECT_EQ(wire->open, 0);
}

TEST_F(Sv, FramesComeBackAsTheyWereSentTaggedOrNot) {
  auto publisher = makeSvPublisher(pool->get_executor());
  auto receiver = makeSvReceiver(pool->get_executor(), CaptureMode::lowLatency);
  auto stream = test::runAwaitable(receiver->start(kIed, {}));
  ASSERT_TRUE(stream);
  ASSERT_TRUE(publish(*publisher, to(kBus)));
  ASSERT_TRUE(publish(*publisher, to(kBus, 100)));
  std::vector<SvCapturedFrame> frames;
  MessageStream<SvCapturedFrame>::Batch batch;
  while (frames.size() < 2 && test::runAwaitable(stream->next(batch))) {
    for (const auto& frame : batch.records()) frames.push_back(frame);
  }
  test::runAwaitable(receiver->stop());
  EXPECT_FALSE(test::runAwaitable(stream->next(batch)));
  ASSERT_EQ(frames.size(), 2U);
  for (const auto& frame : frames) {
    EXPECT_EQ(frame.pdu, kPdu);
    EXPECT_EQ(frame.dstMac, "01:0C:CD:04:00:01");
    EXPECT_NEAR(unixSeconds(frame.receivedAt), unixSeconds(timeNow()), 5);
  }
  EXPECT_EQ(frames[0].vlanId, std::nullopt);
  EXPECT_EQ(frames[1].vlanId, 100);
  test::runAwaitable(publisher->stop());
}

TEST(SvFrameDecoder, OverwritesARecycledRecordAndRefusesOtherFrames) {
  SvCapturedFrame record{Bytes(99), "old", "old", 7, timeNow()};
  const MacAddress mac{1, 2, 3, 4, 5, 0xAB};
  ASSERT_TRUE(
      SvFrameDecoder::decode(EthernetFrame::build(mac, mac, 0, 0, kPdu, kEtherTypeSv), {}, record));
  EXPECT_EQ(record, (SvCapturedFrame{kPdu, "01:02:03:04:05:AB", "01:02:03:04:05:AB", {}, {}}));
  Bytes truncated = EthernetFrame::build(mac, mac, 100, 5, {}, kEtherTypeSv);
  EXPECT_TRUE(SvFrameDecoder::decode(truncated, {}, record));
  truncated.pop_back();
  EXPECT_FALSE(SvFrameDecoder::decode(truncated, {}, record));
}

}  // namespace
}  // namespace tarnlink
