#include "stack/goose_publisher.h"

#include <gmock/gmock.h>

#include <functional>
#include <thread>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/interface_discovery.h"
#include "goosestack/real_time_thread.h"
#include "tests/stack/publishing_fixtures.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/network_namespace.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;
using Case = GooseError::Case;
using Status = SendOutcome::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Numbers = std::pair<std::uint32_t, std::uint32_t>;  // stNum, sqNum

// One retransmission: a busy machine may stall the publisher, which costs frames where there are
// more.
const RetransmissionProfile kQuick{{30}, 0};

GoosePdu pduOf(const Bytes& frame) {
  const auto envelope = EthernetFrame::parse(frame);
  return envelope ? GoosePdu::parse(envelope->payload).value() : GoosePdu{};
}

std::vector<Numbers> numbersOf(const std::vector<test::SentFrame>& frames) {
  std::vector<Numbers> numbers;
  for (const auto& frame : frames) {
    const auto pdu = pduOf(frame.octets);
    numbers.emplace_back(pdu.stNum, pdu.sqNum);
  }
  return numbers;
}

// The publisher runs on its own thread, the test's calls come from another, as in the program.
class Publisher {
 public:
  explicit Publisher(std::shared_ptr<SendHandleSource> handles)
      : publisher_(std::make_shared<GoosePublisher>(
            thread_.executor(), [this](std::string_view line) { log.emplace_back(line); },
            std::move(handles))) {}
  ~Publisher() { stop(); }

  GooseResult<void> publish(const GoosePublishConfig& config) {
    return test::runAwaitable(publisher_->publishStateChange(config));
  }
  void unpublish(std::optional<std::string> goCBRef) {
    test::runAwaitable(publisher_->unpublish(std::move(goCBRef)));
  }
  void stop() { test::runAwaitable(publisher_->stop()); }

  std::vector<std::string> log;  // Written by the publisher's thread while a call is awaited.

 private:
  RealTimeThread thread_;
  std::shared_ptr<GoosePublisher> publisher_;
};

class GoosePublisherTest : public ::testing::Test {
 protected:
  using Sent = std::vector<test::SentFrame>;

  Sent sent(std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (wire->sent().size() < count && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(1ms);
    }
    return wire->sent();
  }
  // Long enough for everything that kQuick would still send.
  Sent sentInTheEnd() {
    std::this_thread::sleep_for(60ms);
    return wire->sent();
  }

  std::shared_ptr<test::FakeWire> wire = std::make_shared<test::FakeWire>();
  Publisher publisher{wire};
};

TEST_F(GoosePublisherTest, EveryFrameCarriesTheTimeOfTheStateChangeAndTheAddressAskedFor) {
  auto config = test::publication(kQuick);
  config.srcMacOverride = test::kOtherMac;
  config.vlanId = 100;
  config.vlanCfi = true;      // Has no say,
  config.vlanTagged = false;  // nor has this.
  const TimePoint before = timeNow();
  ASSERT_TRUE(publisher.publish(config));
  const auto frames = sent(2);
  ASSERT_EQ(frames.size(), 2U);
  const auto first = pduOf(frames[0].octets);
  EXPECT_GE(first.timestamp + 1us, before) << "but for the wire's steps of 2^-24 s";
  for (const auto& frame : frames) {
    EXPECT_EQ(pduOf(frame.octets).timestamp, first.timestamp);
    EXPECT_THAT(std::vector(frame.octets.begin() + 6, frame.octets.begin() + 18),
                ElementsAre(2, 0, 0, 0, 0, 0x0B, 0x81, 0x00, 0x80, 0x64, 0x88, 0xB8));
    EXPECT_EQ(frame.priority, 4);
  }
}

TEST_F(GoosePublisherTest, FramesWithSequenceNumberZeroAreLogged) {
  auto config = test::publication({{2}, 0});
  config.initialSqNum = 4294967295;
  ASSERT_TRUE(publisher.publish(config));
  const auto frames = sent(2);
  publisher.stop();
  ASSERT_EQ(frames.size(), 2U);
  ASSERT_EQ(publisher.log.size(), 2U) << "the wrapped number alone is logged";
  const std::string size = std::to_string(frames[1].octets.size());
  EXPECT_EQ(publisher.log[0], "[Publisher] TX frame " + size +
                                  "B dst=01:0c:cd:01:00:01 src=02:00:00:00:00:0a stNum=1");
  EXPECT_THAT(publisher.log[1], ::testing::StartsWith("[Publisher]   first 64B: 01 0c cd 01 00 01 "
                                                      "02 00 00 00 00 0a 88 b8 30 01 00 "));
  EXPECT_EQ(publisher.log[1].size(), std::string("[Publisher]   first 64B: ").size() + 64 * 3 - 1);
}

TEST_F(GoosePublisherTest, WhatEndsAPublicationSilencesItAtOnce) {
  auto other = test::publication(RetransmissionProfile::single());
  other.goCBRef = "other";
  const std::pair<const char*, std::function<void()>> ends[] = {
      {"replaced", [&] { ASSERT_TRUE(publisher.publish(other)); }},
      {"unpublished", [&] { publisher.unpublish("IED1LD0/LLN0$GO$gcb1"); }},
      {"unpublished without a reference", [&] { publisher.unpublish(std::nullopt); }},
      {"stopped", [&] { publisher.stop(); }},
  };
  for (const auto& [situation, end] : ends) {
    SCOPED_TRACE(situation);
    ASSERT_TRUE(publisher.publish(test::publication({{1, 1, 30, 1}, 20})));
    end();
    const auto count = wire->sent().size();
    EXPECT_EQ(sentInTheEnd().size(), count);
  }
  EXPECT_EQ(wire->open, 0);
}

TEST_F(GoosePublisherTest, UnpublishingAnotherReferenceChangesNothing) {
  ASSERT_TRUE(publisher.publish(test::publication(kQuick)));
  publisher.unpublish("another");
  EXPECT_THAT(numbersOf(sent(2)), ElementsAre(Numbers{1, 0}, Numbers{1, 1}));
}

TEST_F(GoosePublisherTest, AnInterfaceThatCannotBeUsedLeavesTheOldPublicationToItself) {
  const struct {
    const char* interface;
    GooseError error;
  } cases[] = {
      {"absent0", GooseError::pcapOpenFailed("No such device exists")},
      {"nomac0", GooseError::sendFailed("Could not determine MAC address for interface 'nomac0'")},
  };
  for (const auto& [interface, error] : cases) {
    SCOPED_TRACE(interface);
    ASSERT_TRUE(publisher.publish(test::publication({{20, 20}, 0})));
    const auto numbers = numbersOf(wire->sent()).back();
    auto config = test::publication(kQuick);
    config.interface = interface;
    config.srcMacOverride = test::kOtherMac;
    EXPECT_EQ(publisher.publish(config).error(), error);
    EXPECT_EQ(wire->open, 0);
    const auto count = wire->sent().size();
    EXPECT_EQ(sentInTheEnd().size(), count) << "its timers run without a handle";
    ASSERT_TRUE(publisher.publish(test::publication(RetransmissionProfile::single())));
    EXPECT_EQ(numbersOf(wire->sent()).back(), (Numbers{numbers.first + 1, 0}))
        << "the failed request took no number";
  }
}

TEST_F(GoosePublisherTest, AFailedStateChangeFrameTakesItsNumberAndSchedulesNothing) {
  const std::pair<const char*, const char*> texts[] = {
      {"send: Network is down", "send: Network is down"}, {"", "unknown pcap error"}};
  for (const auto& [reason, told] : texts) {
    wire->outcomesOf({{Status::failed, "first"}, {Status::failed, reason}});
    EXPECT_EQ(publisher.publish(test::publication(kQuick)).error(), GooseError::sendFailed(told));
  }
  EXPECT_THAT(sentInTheEnd(), IsEmpty());
  ASSERT_TRUE(publisher.publish(test::publication(RetransmissionProfile::single())));
  EXPECT_THAT(numbersOf(wire->sent()), ElementsAre(Numbers{3, 0}));
}

TEST_F(GoosePublisherTest, FramesThatFailLaterCostTheirNumberOnly) {
  // The first retransmission fails twice; the second one passes when injected.
  wire->outcomesOf(
      {{Status::sent, ""}, {Status::failed, ""}, {Status::failed, ""}, {Status::failed, ""}});
  ASSERT_TRUE(publisher.publish(test::publication({{10, 200}, 0})));
  EXPECT_THAT(numbersOf(sent(2)), ElementsAre(Numbers{1, 0}, Numbers{1, 2}));
}

TEST_F(GoosePublisherTest, LogsOnceWhenFramesBeginToFailAndOnceWhenTheyGoAgain) {
  wire->outcomesOf({{Status::sent, ""},
                    {Status::interfaceGone, "No such device or address"},
                    {Status::failed, "down"},
                    {Status::failed, "down"}});
  auto config = test::publication({{2, 2, 2, 2}, 0});
  config.initialSqNum = 1;  // No lines for number 0.
  ASSERT_TRUE(publisher.publish(config));
  EXPECT_EQ(sentInTheEnd().size(), 3U);
  publisher.stop();
  EXPECT_THAT(publisher.log,
              ElementsAre("[Publisher] ✗ frames fail on bus0: No such device or address",
                          "[Publisher] ✓ frames leave again on bus0"));
  EXPECT_EQ(wire->opened, 2);
}

TEST(GoosePublisher, ThatIsDroppedWhilePublishingSendsNothingMore) {
  RealTimeThread thread;
  auto wire = std::make_shared<test::FakeWire>();
  auto publisher = std::make_shared<GoosePublisher>(
      thread.executor(), [](std::string_view) {}, wire);
  const auto config = test::publication({{}, 10});
  ASSERT_TRUE(test::runAwaitable(publisher->publishStateChange(config)));
  publisher.reset();
  const auto count = wire->sent().size();
  std::this_thread::sleep_for(60ms);
  EXPECT_LE(wire->sent().size(), count + 1) << "one may have been under way";
  EXPECT_EQ(wire->open, 0);
}

class GooseOnTheBus : public test::ProcessBusTest {};

TEST_F(GooseOnTheBus, FollowsItsScheduleToTheOctet) {
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  Publisher publisher(systemSendHandles());
  auto config = test::publication({{60, 120, 240}, 150});
  config.initialStNum = 7;
  ASSERT_TRUE(publisher.publish(config));
  const int offsets[] = {0, 60, 150, 180, 300, 420, 450};  // Milliseconds.
  const auto frames = recorder.frames(std::size(offsets));
  publisher.stop();
  ASSERT_GE(frames.size(), std::size(offsets));
  // The frame as the state change gives it; the rest differs by number alone.
  auto pdu = pduOf(frames[0].octets);
  EXPECT_EQ(pdu.stNum, 7U);
  for (std::size_t i = 0; i < std::size(offsets); ++i) {
    SCOPED_TRACE(i);
    pdu.sqNum = static_cast<std::uint32_t>(i);
    EXPECT_EQ(pduOf(frames[i].octets), pdu);
    // Times only loosely: the machine under test may be busy.
    const auto error = frames[i].time - frames[0].time - std::chrono::milliseconds(offsets[i]);
    EXPECT_LT(std::chrono::abs(error), 50ms);
  }
}

TEST_F(GooseOnTheBus, AFrameLargerThanTheLinkCarriesIsRefusedWithBothSizes) {
  test::FrameRecorder recorder(kIed);
  Publisher publisher(systemSendHandles());
  for (const auto& [vlanId, limit] : {std::pair{0, 1514}, std::pair{100, 1518}}) {
    auto config = test::publication(RetransmissionProfile::single());
    config.vlanId = static_cast<std::uint16_t>(vlanId);
    config.values = {GooseDataValue::octetString({})};
    ASSERT_TRUE(publisher.publish(config));
    // The three lengths around the octet string will take three octets instead of one.
    const std::size_t empty = recorder.frames(1).back().octets.size();
    recorder.clear();
    const std::size_t fitting = static_cast<std::size_t>(limit) - empty - 6;
    config.values = {GooseDataValue::octetString(Bytes(fitting))};
    ASSERT_TRUE(publisher.publish(config));
    ASSERT_EQ(recorder.frames(1).back().octets.size(), static_cast<std::size_t>(limit));
    recorder.clear();
    config.values = {GooseDataValue::octetString(Bytes(fitting + 1))};
    EXPECT_EQ(publisher.publish(config).error(),
              GooseError::sendFailed("frame of " + std::to_string(limit + 1) +
                                     " octets is larger than the " + std::to_string(limit) +
                                     " octets that 'bus0' carries"));
  }
}

TEST_F(GooseOnTheBus, ARunningPublicationFindsAnInterfaceMadeAnew) {
  Publisher publisher(systemSendHandles());
  ASSERT_TRUE(publisher.publish(test::publication({{}, 5})));
  test::NetworkNamespace::removeLink(kBus);
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(publisher.publish(test::publication(kQuick)).error().which(), Case::pcapOpenFailed);
  test::NetworkNamespace::addVethPair(kBus, kIed);
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  EXPECT_GE(recorder.frames(2).size(), 2U);
}

TEST_F(GooseOnTheBus, NoFrameLeavesOnARenamedInterface) {
  Publisher publisher(systemSendHandles());
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  ASSERT_TRUE(publisher.publish(test::publication({{}, 5})));
  test::NetworkNamespace::setUp(kBus, false);
  test::NetworkNamespace::rename(kBus, "other0");
  test::NetworkNamespace::setUp("other0", true);
  recorder.frames(1);
  recorder.clear();
  EXPECT_EQ(publisher.publish(test::publication(kQuick)).error().which(), Case::pcapOpenFailed);
  EXPECT_THAT(recorder.frames(1, 50ms), IsEmpty());
  test::NetworkNamespace::removeLink("other0");
}

// Nothing was sent meanwhile that could have met the old interface's end.
TEST_F(GooseOnTheBus, AnInterfaceMadeAnewBetweenTwoRequestsCarriesTheSecond) {
  Publisher publisher(systemSendHandles());
  const auto config = test::publication(RetransmissionProfile::single());
  ASSERT_TRUE(publisher.publish(config));
  test::NetworkNamespace::removeLink(kBus);
  test::NetworkNamespace::addVethPair(kBus, kIed);
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  ASSERT_TRUE(publisher.publish(config));
  const auto frames = recorder.frames(1);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(pduOf(frames[0].octets).stNum, 2U);
  const auto source = InterfaceDiscovery::macAddressBytes(kBus);
  EXPECT_TRUE(std::equal(source->begin(), source->end(), frames[0].octets.begin() + 6))
      << "the address is the new interface's";
}

}  // namespace
}  // namespace tarnlink
