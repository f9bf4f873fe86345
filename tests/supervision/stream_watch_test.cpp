#include "supervision/stream_watch.h"

#include <gtest/gtest.h>

#include "tests/stack/allocation_count.h"
#include "tests/supervision/watching.h"

namespace tarnlink::test {
namespace {

std::string nameOf(std::size_t number) {
  return "IED" + std::to_string(number) + "LD0/LLN0$GO$gcb01";
}

TEST(StreamWatch, KeyIsNameAppIdDestinationTagAndSimulation) {
  StreamWatch watch;
  StreamWatch::Events events;
  const auto see = [&](const GooseSighting& message) {
    watch.see(message, events);
    return watch.size();
  };
  GooseSighting message{.frame = {.at = atMs(0)}, .goCBRef = "cb"};
  EXPECT_EQ(see(message), 1U);
  message.frame.vlanId = 0;  // A priority tag is no other stream.
  message.frame.vlanPriority = 4;
  EXPECT_EQ(see(message), 1U);
  EXPECT_EQ(watch.find(1)->vlanPriority, 4);
  EXPECT_FALSE(watch.find(1)->vlanId);
  message.frame.vlanId = 5;
  EXPECT_EQ(see(message), 2U);
  EXPECT_EQ(watch.find(2)->vlanId, 5);
  message.frame.dstMac = mac(1);
  EXPECT_EQ(see(message), 3U);
  message.appId = 1;
  EXPECT_EQ(see(message), 4U);
  message.simulation = true;
  EXPECT_EQ(see(message), 5U);
  message.goCBRef = "cc";
  EXPECT_EQ(see(message), 6U);
  message.frame.srcMac = mac(9);
  EXPECT_EQ(see(message), 6U);
  const std::string tooLong(256, 'x');
  message.goCBRef = tooLong;
  EXPECT_EQ(see(message), 6U);
  EXPECT_EQ(watch.untrackedFrames(), 1U);
  goosestack::SvPdu pdu;
  pdu.asdus = {{.svId = "cb"}};
  EXPECT_EQ(watch.see({.at = atMs(0)}, pdu, events)[0], 7U);
}

TEST(StreamWatch, ExpiryIsToldInTimeAndOnce) {
  StreamWatch watch;
  StreamWatch::Events events;
  EXPECT_FALSE(watch.nextDeadline());
  show(watch, Goose{.ms = 0, .ttl = 40000}, events);
  // Shorter at once, and longer again.
  show(watch, Goose{.ms = 100, .sqNum = 1, .ttl = 500}, events);
  show(watch, Goose{.ms = 200, .sqNum = 2, .ttl = 1000}, events);
  events.clear();
  // An owner with a timer of its own.
  for (int calls = 0; watch.nextDeadline(); ++calls) {
    ASSERT_LT(calls, 3);
    const StreamTime now = *watch.nextDeadline();
    watch.advance(now, events);
    if (events.empty()) continue;
    EXPECT_GT(now, atMs(1200));
    EXPECT_LE(now, atMs(1210));
  }
  EXPECT_EQ(told(events), "expired 1000");
  EXPECT_EQ(events[0].at, atMs(1200));
}

TEST(StreamWatch, AMessageOnItsWayDoesNotExpire) {
  StreamWatch watch;
  StreamWatch::Events events;
  show(watch, Goose{.ms = 0}, events);
  watch.advance(atMs(1002), events);
  show(watch, Goose{.ms = 1000, .sqNum = 1}, events);
  EXPECT_EQ(told(events), "appeared");
}

TEST(StreamWatch, FullTableGivesUpTheOneSilentForLongest) {
  StreamWatch watch;
  StreamWatch::Events events;
  for (std::size_t i = 0; i < StreamWatch::kMaxStreams; ++i) {
    // The streams 1,001 and 1,002 are heard again later, in the other order.
    const bool isShort = i == 1000 || i == 1001;
    show(watch, Goose{.ms = 0, .ttl = isShort ? 100U : 60000U, .name = nameOf(i)}, events);
  }
  show(watch, Goose{.ms = 10, .name = "newcomer"}, events);
  EXPECT_EQ(watch.untrackedFrames(), 1U);
  show(watch, Goose{.ms = 20, .sqNum = 1, .ttl = 100, .name = nameOf(1001)}, events);
  show(watch, Goose{.ms = 30, .sqNum = 1, .ttl = 100, .name = nameOf(1000)}, events);
  // What is still to be told of it goes with it.
  for (int i = 0; i < 60; ++i) {
    show(watch, Goose{.ms = 20, .sqNum = 1, .ttl = 100, .name = nameOf(1001)}, events);
  }
  watch.advance(atMs(200), events);
  events.clear();
  show(watch, Goose{.ms = 210, .name = "newcomer"}, events);
  EXPECT_EQ(told(events), "appeared");
  EXPECT_EQ(events[0].id, 4097U);
  EXPECT_EQ(watch.find(1002), nullptr);
  EXPECT_NE(watch.find(1001), nullptr);
  show(watch, Goose{.ms = 211, .name = nameOf(1001)}, events);
  EXPECT_EQ(watch.find(1001), nullptr);
  show(watch, Goose{.ms = 212, .name = "one too many"}, events);
  EXPECT_EQ(watch.untrackedFrames(), 2U);
  EXPECT_EQ(watch.size(), StreamWatch::kMaxStreams);
  events.clear();
  watch.advance(atMs(1100), events);
  EXPECT_EQ(told(events), "");
}

TEST(StreamWatch, MoreThanFiftyEventsASecondAreSummedUp) {
  StreamWatch watch;
  StreamWatch::Events events;
  for (int i = 0; i < 120; ++i) show(watch, Goose{.ms = i * 5.0}, events);  // Until 595 ms.
  EXPECT_EQ(events.size(), 50U);
  EXPECT_EQ(faultsOf(*watch.find(1), "duplicate"), 119U);
  EXPECT_EQ(watch.nextDeadline(), atMs(1000));
  events.clear();
  watch.advance(atMs(1000), events);
  EXPECT_EQ(told(events), "suppressed 70");
  EXPECT_EQ(events[0].at, atMs(1000));
  events.clear();
  show(watch, Goose{.ms = 1001}, events);
  EXPECT_EQ(told(events), "duplicate");
  // Without advance() the next event tells it.
  for (int i = 0; i < 60; ++i) show(watch, Goose{.ms = 1002}, events);
  events.clear();
  show(watch, Goose{.ms = 2001}, events);
  EXPECT_EQ(told(events), "suppressed 11, duplicate");
  events.clear();
  watch.advance(atMs(3003), events);
  EXPECT_EQ(told(events), "");
}

TEST(StreamWatch, RowsThatChangedAreVisited) {
  StreamWatch watch;
  StreamWatch::Events events;
  const auto changed = [&](std::uint64_t since) {
    std::vector<std::uint32_t> ids;
    watch.visitChanged(since, [&](const StreamRow& row) { ids.push_back(row.id); });
    return ids;
  };
  for (std::size_t i = 0; i < 3; ++i) show(watch, Goose{.ms = 0, .name = nameOf(i)}, events);
  EXPECT_EQ(changed(0), (std::vector<std::uint32_t>{1, 2, 3}));
  const std::uint64_t before = watch.revision();
  EXPECT_TRUE(changed(before).empty());
  show(watch, Goose{.ms = 900, .sqNum = 1, .name = nameOf(1)}, events);
  EXPECT_EQ(changed(before), std::vector<std::uint32_t>{2});
  watch.advance(atMs(1500), events);
  EXPECT_EQ(changed(before), (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST(StreamWatch, RateIsThatOfTheMessages) {
  StreamWatch watch;
  StreamWatch::Events events;
  for (std::uint32_t i = 0; i < 20; ++i) {
    show(watch, Goose{.ms = i * 400.0, .sqNum = i, .ttl = 60000}, events);
  }
  const StreamRow& row = *watch.find(1);
  EXPECT_NEAR(row.ratePerSecond(atMs(7700)), 2.5, 1e-9);
  EXPECT_LT(row.ratePerSecond(atMs(27600)), 0.11);
}

TEST(StreamWatch, ACleanMessageAllocatesNothing) {
  StreamWatch watch;
  StreamWatch::Events events;
  const std::vector<goosestack::GooseDataValue> values(20, goosestack::GooseDataValue::integer(7));
  GooseSighting message{.frame = {.at = atMs(0)},
                        .dataSet = "IED1LD0/LLN0$dataset",
                        .goId = "a goose of a usual length",
                        .timeAllowedToLive = 2000,
                        .numEntries = 20,
                        .values = values};
  std::vector<std::string> names;
  for (std::size_t i = 0; i < StreamWatch::kMaxStreams; ++i) names.push_back(nameOf(i));
  for (std::uint32_t round = 0; round < 4; ++round) {
    const std::size_t allocations = allocationCount();
    message.frame.at = atMs(round * 1000);
    message.sqNum = round;
    for (const std::string& name : names) {
      message.goCBRef = name;
      watch.see(message, events);
    }
    watch.advance(message.frame.at, events);
    EXPECT_EQ(allocationCount() == allocations, round > 0);
  }
  EXPECT_EQ(events.size(), names.size());
}

}  // namespace
}  // namespace tarnlink::test
