#include "stack/goose_publisher.h"

#include <gmock/gmock.h>

#include <functional>
#include <thread>

#include "goosestack/ethernet_frame.h"
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
using Status = SendOutcome::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using Numbers = std::pair<std::uint32_t, std::uint32_t>;  // stNum, sqNum
using Network = test::NetworkNamespace;

// One retransmission: a busy machine may stall the publisher, which costs frames where there are
// more.
const RetransmissionProfile kQuick{{30}, 0};
const RetransmissionProfile kSteady{{}, 5};

GoosePdu pduOf(const Bytes& frame) {
  return GoosePdu::parse(EthernetFrame::parse(frame).value().payload).value();
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
  explicit Publisher(std::shared_ptr<SendHandleSource> handles = systemSendHandles())
      : publisher_(std::make_shared<GoosePublisher>(
            thread_.executor(), [this](std::string_view line) { log.emplace_back(line); },
            std::move(handles))) {}
  ~Publisher() {
    if (publisher_) stop();
  }

  GooseResult<void> publish(const GoosePublishConfig& config) {
    return test::runAwaitable(publisher_->publishStateChange(config));
  }
  void unpublish(std::optional<std::string> goCBRef) {
    test::runAwaitable(publisher_->unpublish(std::move(goCBRef)));
  }
  void stop() { test::runAwaitable(publisher_->stop()); }
  void drop() { publisher_.reset(); }

  std::vector<std::string> log;  // Written by the publisher's thread while a call is awaited.

 private:
  RealTimeThread thread_;
  std::shared_ptr<GoosePublisher> publisher_;
};

class GoosePublisherTest : public ::testing::Test {
 protected:
  std::vector<test::SentFrame> sent(std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (wire->sent().size() < count && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(1ms);
    }
    return wire->sent();
  }
  // Long enough for everything that kQuick would still send.
  std::vector<test::SentFrame> sentInTheEnd() {
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
  config.initialSqNum = 4294967295;
  const TimePoint before = timeNow();
  ASSERT_TRUE(publisher.publish(config));
  publisher.unpublish("another reference");
  const auto frames = sent(2);
  EXPECT_THAT(numbersOf(frames), ElementsAre(Numbers{1, 4294967295}, Numbers{1, 0}));
  const auto first = pduOf(frames[0].octets);
  EXPECT_GE(first.timestamp + 1us, before) << "but for the wire's steps of 2^-24 s";
  for (const auto& frame : frames) {
    EXPECT_EQ(pduOf(frame.octets).timestamp, first.timestamp);
    EXPECT_THAT(std::vector(frame.octets.begin() + 6, frame.octets.begin() + 18),
                ElementsAre(2, 0, 0, 0, 0, 0x0B, 0x81, 0x00, 0x80, 0x64, 0x88, 0xB8));
    EXPECT_EQ(frame.priority, 4);
  }
  publisher.stop();
  const std::string head = "[Publisher]   first 64B: 01 0c cd 01 00 01 02 00 00 00 00 0b 81 00 ";
  EXPECT_THAT(publisher.log,
              ElementsAre("[Publisher] TX frame " + std::to_string(frames[1].octets.size()) +
                              "B dst=01:0c:cd:01:00:01 src=02:00:00:00:00:0b stNum=1",
                          StartsWith(head)))
      << "sequence number 0 alone is logged";
  EXPECT_EQ(publisher.log[1].size(), std::string("[Publisher]   first 64B: ").size() + 64 * 3 - 1);
}

TEST_F(GoosePublisherTest, WhatEndsAPublicationSilencesItAtOnce) {
  auto other = test::publication(RetransmissionProfile::single());
  other.goCBRef = "other";
  const struct {
    const char* situation;
    std::function<void()> end;
    std::size_t underWay = 0;  // Frames that may still come.
  } ends[] = {
      {"replaced", [&] { ASSERT_TRUE(publisher.publish(other)); }},
      {"unpublished", [&] { publisher.unpublish("IED1LD0/LLN0$GO$gcb1"); }},
      {"unpublished without a reference", [&] { publisher.unpublish(std::nullopt); }},
      {"stopped", [&] { publisher.stop(); }},
      {"dropped", [&] { publisher.drop(); }, 1},
  };
  for (const auto& [situation, end, underWay] : ends) {
    SCOPED_TRACE(situation);
    ASSERT_TRUE(publisher.publish(test::publication({{1, 1, 30, 1}, 20})));
    end();
    const auto count = wire->sent().size();
    EXPECT_LE(sentInTheEnd().size(), count + underWay);
  }
  EXPECT_EQ(wire->open, 0);
}

TEST_F(GoosePublisherTest, AnInterfaceThatCannotBeUsedLeavesTheOldPublicationToItself) {
  const std::pair<const char*, GooseError> cases[] = {
      {"absent0", GooseError::pcapOpenFailed("no device")},
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
  for (const std::string reason : {"send: Network is down", ""}) {
    wire->outcomesOf({{Status::failed, "first"}, {Status::failed, reason}});
    EXPECT_EQ(publisher.publish(test::publication(kQuick)).error(),
              GooseError::sendFailed(reason.empty() ? "unknown pcap error" : reason));
  }
  EXPECT_THAT(sentInTheEnd(), IsEmpty());
  ASSERT_TRUE(publisher.publish(test::publication(RetransmissionProfile::single())));
  EXPECT_THAT(numbersOf(wire->sent()), ElementsAre(Numbers{3, 0}));
}

TEST_F(GoosePublisherTest, FramesThatFailLaterCostTheirNumberAndTwoLinesOfTheLog) {
  wire->outcomesOf({{Status::sent, ""},
                    {Status::interfaceGone, "No such device or address"},
                    {Status::failed, "down"},  // And again when injected.
                    {Status::failed, "down"},
                    {Status::failed, "passes when injected"}});
  auto config = test::publication({{2, 2, 2, 2}, 0});
  config.initialSqNum = 1;  // No lines for number 0.
  ASSERT_TRUE(publisher.publish(config));
  EXPECT_THAT(numbersOf(sentInTheEnd()), ElementsAre(Numbers{1, 1}, Numbers{1, 4}, Numbers{1, 5}));
  publisher.stop();
  EXPECT_THAT(publisher.log,
              ElementsAre("[Publisher] ✗ frames fail on bus0: No such device or address",
                          "[Publisher] ✓ frames leave again on bus0"));
  EXPECT_EQ(wire->opened, 2);
}

class GooseOnTheBus : public test::ProcessBusTest {};

TEST_F(GooseOnTheBus, FollowsItsScheduleToTheOctet) {
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  Publisher publisher;
  ASSERT_TRUE(publisher.publish(test::publication({{60, 120, 240}, 150})));
  const int offsets[] = {0, 60, 150, 180, 300, 420, 450};  // Milliseconds.
  const auto frames = recorder.frames(std::size(offsets));
  publisher.stop();
  ASSERT_GE(frames.size(), std::size(offsets));
  // The frame as the state change gives it; the rest differs by number alone.
  auto pdu = pduOf(frames[0].octets);
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
  Publisher publisher;
  auto config = test::publication(RetransmissionProfile::single());
  const auto sizeWith = [&](std::size_t octets) {
    config.values = {GooseDataValue::octetString(Bytes(octets))};
    recorder.clear();
    EXPECT_TRUE(publisher.publish(config));
    return recorder.frames(1).back().octets.size();
  };
  for (const std::size_t limit : {1514, 1518}) {
    config.vlanId = limit == 1518 ? 100 : 0;
    // The three lengths around the octet string take three octets instead of one.
    const std::size_t fitting = limit - sizeWith(0) - 6;
    EXPECT_EQ(sizeWith(fitting), limit);
    config.values = {GooseDataValue::octetString(Bytes(fitting + 1))};
    EXPECT_EQ(publisher.publish(config).error(),
              GooseError::sendFailed("frame of " + std::to_string(limit + 1) +
                                     " octets is larger than the " + std::to_string(limit) +
                                     " octets that 'bus0' carries"));
  }
}

TEST_F(GooseOnTheBus, AnInterfaceMadeAnewCarriesTheNextFrame) {
  const auto makeAnew = [](auto meanwhile) {
    Network::removeLink(kBus);
    meanwhile();
    Network::addVethPair(kBus, kIed);
    return std::make_unique<test::FrameRecorder>(kIed, "ether proto 0x88b8");
  };
  Publisher publisher;
  ASSERT_TRUE(publisher.publish(test::publication(RetransmissionProfile::single())));
  // Nothing is sent meanwhile that could meet the old interface's end.
  auto recorder = makeAnew([] {});
  ASSERT_TRUE(publisher.publish(test::publication(kSteady)));
  const auto frame = EthernetFrame::parse(recorder->frames(1).at(0).octets).value();
  EXPECT_EQ(frame.srcMac, InterfaceDiscovery::macAddressBytes(kBus)) << "the new interface's";
  // Now the publication goes on by itself.
  recorder = makeAnew([&] {
    std::this_thread::sleep_for(30ms);
    EXPECT_TRUE(publisher.publish(test::publication(kQuick)).has_error());
  });
  EXPECT_GE(recorder->frames(2).size(), 2U);
}

TEST_F(GooseOnTheBus, NoFrameLeavesOnARenamedInterface) {
  Publisher publisher;
  test::FrameRecorder recorder(kIed, "ether proto 0x88b8");
  ASSERT_TRUE(publisher.publish(test::publication(kSteady)));
  Network::setUp(kBus, false);
  Network::rename(kBus, "other0");
  Network::setUp("other0", true);
  recorder.frames(1);
  recorder.clear();
  EXPECT_TRUE(publisher.publish(test::publication(kQuick)).has_error());
  EXPECT_THAT(recorder.frames(1, 50ms), IsEmpty());
  Network::removeLink("other0");
}

}  // namespace
}  // namespace tarnlink
