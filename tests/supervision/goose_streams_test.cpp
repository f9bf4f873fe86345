#include <gtest/gtest.h>

#include "tests/supervision/watching.h"

namespace tarnlink::test {
namespace {

constexpr std::uint32_t kLargest = 4294967295;

TEST(GooseStreams, Histories) {
  struct Case {
    const char* name;
    std::vector<Goose> history;  // Behind (1, 0), (1, 1) and (1, 2), a second apart from 0 ms on.
    std::string expected;        // Behind "appeared".
  };
  const Case cases[] = {
      {"clean", {{3000, 1, 3}, {3100, 2, 0, {10, 21}}, {3101, 2, 1, {10, 21}}}, "changed 2 [ 1 ]"},
      {"a state may begin with 1",
       {{3000, 2, 1, {11, 21}}, {3001, 2, 2, {11, 21}}},
       "changed 2 [ 0 1 ]"},
      {"a change without another value", {{3000, 2, 0}}, "changed 2 [ ]"},
      {"lost", {{3000, 1, 5}, {3900, 1, 6}}, "lost 2"},
      {"lost after a change", {{3000, 2, 3}}, "lost 3, changed 2 [ ]"},
      {"lost, perhaps by us",
       {{3000, 1, 4, {10, 20}, 1, 1000, 1, -1, false, "ds", 0, 7}},
       "lost 1?"},
      {"states skipped, perhaps by us",
       {{3000, 3, 0, {10, 20}, 1, 1000, 1, -1, false, "ds", 0, 7},
        {3001, 5, 0, {10, 20}, 1, 1000, 1, -1, false, "ds", 0, 7}},
       "stateSkipped 1?, stateSkipped 1"},
      {"duplicate at once and late", {{2003, 1, 2}, {2800, 1, 2}}, "duplicate, duplicate"},
      {"copies of a burst",
       {{3000, 2, 0, {1, 1}},
        {3001, 2, 1, {1, 1}},
        {3004, 2, 0, {1, 1}},
        {3005, 2, 1, {1, 1}},
        {3006, 2, 2, {1, 1}}},
       "changed 2 [ 0 1 ], duplicate, duplicate"},
      {"a copy of the state before", {{2004, 2, 0}, {2005, 1, 2}}, "changed 2 [ ], duplicate"},
      {"too late for a copy", {{2900, 1, 3}, {2906, 1, 2}, {3000, 1, 4}}, "outOfOrder 1 2 0"},
      {"swapped", {{3000, 1, 4}, {3001, 1, 3}, {3002, 1, 5}}, "lost 1, outOfOrder 1 3 0"},
      {"restarted",
       {{3000, 9, 0}, {3001, 1, 0, {5, 5}}, {3002, 1, 1, {5, 5}}},
       "stateSkipped 7, restarted"},
      {"restarted with 1", {{3000, 2, 0}, {3010, 1, 1}}, "changed 2 [ ], restarted"},
      {"restarted in the first state",
       {{3000, 1, 1, {10, 20}, 1, 1000, 1, -1, false, "ds", 5}},
       "restarted"},
      {"late in the first state", {{2990, 1, 0}}, "outOfOrder 1 0 0"},
      {"restarted unseen",
       {{3000, 9, 0}, {3010, 1, 2}, {3020, 1, 3}, {3030, 2, 0}, {3040, 2, 1}, {3050, 2, 2}},
       "stateSkipped 7, outOfOrder 1 2 0, outOfOrder 1 3 0, outOfOrder 2 0 0, outOfOrder 2 1 0"},
      {"configuration",
       {{3000, 1, 3, {10, 20}, 2}, {3001, 1, 4, {10, 20}, 2}},
       "confRevChanged 1 2"},
      {"same numbers, other configuration", {{2001, 1, 2, {10, 20}, 2}}, "confRevChanged 1 2"},
      {"a member more", {{3000, 1, 3, {10, 20, 30}}}, "datasetChanged"},
      {"a member less and a change", {{3000, 2, 0, {11}}}, "datasetChanged, changed 2 [ 0 ]"},
      {"another type", {{3000, 1, 3, {10, -1}}, {3001, 1, 4, {10, -1}}}, "datasetChanged"},
      {"another dataset",
       {{3000, 1, 3, {10, 20}, 1, 1000, 1, -1, false, "other"}},
       "datasetChanged"},
      {"changed without stNum",
       {{3000, 1, 3, {10, 21}}, {3001, 1, 3, {11, 21}}},
       "changedWithoutStNum [ 1 ], changedWithoutStNum [ 0 ]"},
      {"another source and back",
       {{3000, 1, 3, {10, 20}, 1, 1000, 7}, {3001, 1, 4}},
       "sourceChanged 1 7, sourceChanged 7 1"},
      {"entries wrong",
       {{3000, 1, 3, {10, 20}, 1, 1000, 1, 3},
        {3001, 1, 4, {10, 20}, 1, 1000, 1, 3},
        {3002, 1, 5},
        {3003, 1, 6, {10, 20}, 1, 1000, 1, 1}},
       "entriesWrong 3 2, entriesWrong 1 2"},
      {"time allowed to live",
       {{3000, 1, 3, {10, 20}, 1, 0}, {9000, 1, 4, {10, 20}, 1, 0}},
       "timeAllowedToLiveZero"},
      {"commissioning",
       {{3000, 1, 3, {10, 20}, 1, 1000, 1, -1, true}, {3001, 1, 4}},
       "needsCommission 1, needsCommission 0"},
      {"expired", {{3000, 1, 3}, {4000, 1, 4}, {5001, 1, 5}}, "expired 1000, recovered 1"},
      {"expired, restarted, elsewhere",
       {{6500, 1, 0, {10, 20}, 1, 1000, 7, -1, false, "ds", 6}},
       "expired 1000, recovered 3500, sourceChanged 1 7, restarted"},
      {"all at once",
       {{6500, 3, 2, {10}, 2, 0, 7, 9, true, "x", 6, 1}},
       "expired 1000, recovered 3500, sourceChanged 1 7, stateSkipped 1?, confRevChanged 1 2, "
       "datasetChanged, entriesWrong 9 1, timeAllowedToLiveZero, needsCommission 1"},
  };
  for (const auto& [name, history, expected] : cases) {
    SCOPED_TRACE(name);
    StreamWatch watch;
    StreamWatch::Events events;
    for (std::uint32_t i = 0; i < 3; ++i) show(watch, Goose{i * 1000.0, 1, i}, events);
    for (const Goose& goose : history) show(watch, goose, events);
    EXPECT_EQ(told(events), "appeared" + (expected.empty() ? "" : ", " + expected));
  }
}

TEST(GooseStreams, CountersRunOverTheirEnd) {
  struct Case {
    Goose last;
    Goose next;
    std::string expected;
  };
  const Case cases[] = {
      {{0, 5, kLargest}, {1, 5, 0}, "appeared"},
      {{0, 5, kLargest}, {1, 5, 1}, "appeared"},
      {{0, 5, kLargest - 1}, {1, 5, 1}, "appeared, lost 1"},
      {{0, 5, kLargest - 1}, {1, 5, 0}, "appeared, lost 1"},
      {{0, 5, kLargest - 2000}, {1, 5, 3}, "appeared, outOfOrder 5 3 0"},
      {{0, kLargest, 4}, {1, 1, 0}, "appeared, changed 1 [ ]"},
      {{0, kLargest - 1, 4}, {1, 1, 0}, "appeared, restarted"},
      {{0, kLargest - 1, 4}, {1, 2, 0}, "appeared, stateSkipped 2"},
  };
  for (const auto& [last, next, expected] : cases) {
    StreamWatch watch;
    StreamWatch::Events events;
    show(watch, last, events);
    show(watch, next, events);
    EXPECT_EQ(told(events), expected);
  }
}

TEST(GooseStreams, RowCountsFaultsAndTimes) {
  StreamWatch watch;
  StreamWatch::Events events;
  show(watch, Goose{0, 1, 0}, events);
  show(watch, Goose{500, 1, 4}, events);
  show(watch, Goose{1000, 2, 0}, events);
  show(watch, Goose{1500, 2, 3, {10, 20}, 1, 1000, 1, -1, false, "ds", 0, 1}, events);
  show(watch, Goose{4000, 2, 4, {10, 20}, 1, 1000, 1, -1, false, "ds", 0, 1}, events);
  const StreamRow& row = *watch.find(1);
  EXPECT_EQ(faultsOf(row, "lost"), 3U);
  EXPECT_EQ(faultsOf(row, "uncertain"), 2U);
  EXPECT_EQ(faultsOf(row, "expired"), 1U);
  EXPECT_EQ(faultsOf(row, "changed") + faultsOf(row, "appeared") + faultsOf(row, "recovered"), 0U);
  EXPECT_EQ(row.messages, 5U);
  EXPECT_EQ(row.stateChanges, 1U);
  EXPECT_EQ(row.lastChange, atMs(1000));
  EXPECT_EQ(row.firstSeen, atMs(0));
  EXPECT_EQ(row.lastSeen, atMs(4000));
  EXPECT_EQ(row.downtime(atMs(4000)).count(), 1'500'000);
  watch.advance(atMs(7000), events);
  EXPECT_FALSE(row.isLive);
  EXPECT_EQ(row.downtime(atMs(7000)).count(), 3'500'000);
}

using Value = goosestack::GooseDataValue;

TEST(MemberPrints, TellTypesAndValuesApart) {
  const auto structure = [](Value member) { return Value::structure({std::move(member)}); };
  struct Case {
    Value before;
    Value after;
    bool ofTypes;
  };
  const Case cases[] = {
      {Value::boolean(true), Value::boolean(false), false},
      {Value::integer(1), Value::unsignedInteger(1), true},
      {Value::integer(-1), Value::integer(2147483647), false},
      {Value::floatingPoint(0.0F), Value::floatingPoint(-0.0F), false},
      {Value::realDouble(1), Value::realDouble(1.0000000001), false},
      {Value::bitString({true}), Value::bitString({true, false}), false},
      {Value::bitString(Value::BitString(40, true)), Value::bitString(Value::BitString(41, true)),
       false},
      {Value::visibleString("a text"), Value::visibleString("a test"), false},
      {Value::octetString({1}), Value::octetString({1, 0}), false},
      {Value::utcTime(goosestack::timeFromUnixSeconds(1)),
       Value::utcTime(goosestack::timeFromUnixSeconds(2)), false},
      {structure(Value::integer(1)), structure(Value::integer(2)), false},
      {structure(Value::integer(1)), structure(Value::boolean(true)), true},
      {structure(Value::integer(1)), Value::array({Value::integer(1)}), true},
      {Value::unknown(0x8C, {1}), Value::unknown(0x8C, {2}), false},
      {Value::unknown(0x8C, {1}), Value::unknown(0x8D, {1}), true},
  };
  for (const auto& [before, after, ofTypes] : cases) {
    MemberPrints prints;
    prints.replace(std::array{before});
    EXPECT_TRUE(prints.isSame(std::array{before}));
    EXPECT_FALSE(prints.isSame(std::array{after})) << before.payload.index();
    const auto difference = prints.replace(std::array{after});
    EXPECT_EQ(difference.ofTypes, ofTypes) << before.payload.index();
    EXPECT_EQ(difference.members, std::vector<std::uint32_t>{0});
  }
}

TEST(MemberPrints, LastWordStandsForTheRest) {
  std::vector<Value> values(MemberPrints::kMax + 20, Value::integer(1));
  MemberPrints prints;
  prints.replace(values);
  EXPECT_TRUE(prints.isSame(values));
  values[3] = Value::integer(2);
  values.back() = Value::integer(2);
  EXPECT_FALSE(prints.isSame(values));
  EXPECT_EQ(prints.replace(values).members, (std::vector<std::uint32_t>{3, 255}));
}

}  // namespace
}  // namespace tarnlink::test
