#include "stack/publication_schedule.h"

#include <gmock/gmock.h>

#include <ostream>
#include <vector>

#include "tests/stack/publishing_fixtures.h"

namespace tarnlink {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAreArray;
using Instant = PublicationSchedule::Instant;
using Transmission = PublicationSchedule::Transmission;

constexpr char R = 'R';  // Retransmission
constexpr char H = 'H';  // Heartbeat

struct Frame {
  char kind;
  int time;  // Milliseconds after the state change.
  std::uint32_t sqNum;
  bool operator==(const Frame&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Frame& frame) {
    return out << frame.kind << " at " << frame.time << " as " << frame.sqNum;
  }
};

/// Nobody looks at the schedule between these times.
struct Stall {
  int from = -1, to = -1;
};

// Every wake-up comes a little late, as in life; the deadlines must not take that over.
std::vector<Frame> play(PublicationSchedule& schedule, int until, Stall stall = {}) {
  const Instant start{std::chrono::hours(7)};
  constexpr std::chrono::microseconds kLate{900};
  std::vector<Frame> frames;
  schedule.start(start);
  while (const auto deadline = schedule.nextDeadline()) {
    const int due = static_cast<int>((*deadline - start) / milliseconds(1));
    if (due > until) break;
    const bool isStalled = due >= stall.from && due < stall.to;
    const Instant now = (isStalled ? start + milliseconds(stall.to) : *deadline) + kLate;
    EXPECT_FALSE(schedule.takeDue(*deadline - std::chrono::nanoseconds(1)));
    const std::uint32_t announced = schedule.nextSqNum();
    const auto kind = schedule.takeDue(now);
    EXPECT_EQ(schedule.currentSqNum(), announced);
    if (!kind) {
      ADD_FAILURE() << "nothing due at its deadline";
      break;
    }
    frames.push_back({*kind == Transmission::heartbeat ? H : R,
                      static_cast<int>((now - start) / milliseconds(1)), schedule.currentSqNum()});
  }
  return frames;
}

struct Course {
  const char* situation;
  RetransmissionProfile profile;
  int until;
  Stall stall;
  std::vector<Frame> frames;
};

TEST(PublicationSchedule, SendsAsItsProfileSays) {
  const auto& standard = RetransmissionProfile::standard();
  const auto& fast = RetransmissionProfile::fast();
  const Course courses[] = {
      {"standard",
       standard,
       12999,
       {},
       {{R, 2, 1},
        {R, 6, 2},
        {R, 14, 3},
        {R, 30, 4},
        {R, 62, 5},
        {R, 126, 6},
        {R, 1126, 7},
        {R, 2126, 8},
        {R, 3126, 9},
        {H, 4000, 10},
        {R, 4126, 11},
        {H, 8000, 12},
        {H, 12000, 13}}},
      {"fast",
       fast,
       6999,
       {},
       {{R, 2, 1},
        {R, 6, 2},
        {R, 14, 3},
        {R, 30, 4},
        {R, 62, 5},
        {R, 126, 6},
        {R, 254, 7},
        {R, 510, 8},
        {R, 1022, 9},
        {H, 2000, 10},
        {R, 2046, 11},
        {H, 4000, 12},
        {R, 4094, 13},
        {H, 6000, 14}}},
      {"single", RetransmissionProfile::single(), 99999, {}, {}},
      {"no heartbeat", {{5, 5}, -1}, 99999, {}, {{R, 5, 1}, {R, 10, 2}}},
      {"both due together",
       {{1000, 1000, 500}, 2000},
       2999,
       {},
       {{R, 1000, 1}, {R, 2000, 2}, {H, 2000, 3}, {R, 2500, 4}}},
      {"stall over some retransmissions",
       standard,
       1200,
       {25, 70},
       {{R, 2, 1}, {R, 6, 2}, {R, 14, 3}, {R, 70, 4}, {R, 126, 5}, {R, 1126, 6}}},
      {"stall over the rest of the chain and heartbeats",
       standard,
       17000,
       {3000, 13500},
       {{R, 2, 1},
        {R, 6, 2},
        {R, 14, 3},
        {R, 30, 4},
        {R, 62, 5},
        {R, 126, 6},
        {R, 1126, 7},
        {R, 2126, 8},
        {R, 13500, 9},
        {H, 13500, 10},
        {H, 16000, 11}}},
      {"stall that ends at a heartbeat's deadline",
       {{}, 2000},
       8999,
       {1500, 6000},
       {{H, 6000, 1}, {H, 8000, 2}}},
  };
  for (const auto& course : courses) {
    SCOPED_TRACE(course.situation);
    PublicationSchedule schedule;
    schedule.stateChange(test::publication(course.profile));
    EXPECT_THAT(play(schedule, course.until, course.stall), ElementsAreArray(course.frames));
  }
}

TEST(PublicationSchedule, SequenceNumbersWrapToZeroAndMayBeLocked) {
  PublicationSchedule schedule;
  auto config = test::publication({{1, 1}, 0});
  config.initialSqNum = 4294967294;
  schedule.stateChange(config);
  EXPECT_THAT(play(schedule, 10), ElementsAreArray<Frame>({{R, 1, 4294967295}, {R, 2, 0}}));

  config.lockSqNum = true;
  config.retransmissionProfile.heartbeatInterval = 5;
  schedule.stateChange(config);
  EXPECT_THAT(play(schedule, 7), ElementsAreArray<Frame>(
                                     {{R, 1, 4294967294}, {R, 2, 4294967294}, {H, 5, 4294967294}}));
}

TEST(PublicationSchedule, StateNumbersCountOnUnlessNamedOrLocked) {
  const struct {
    std::uint32_t initialStNum;
    bool lockStNum;
    std::uint32_t stNum;
  } requests[] = {
      {0, true, 0},          {0, false, 1}, {0, false, 2}, {7, false, 7},
      {7, false, 7},         {0, true, 7},  {9, true, 9},  {4294967295, false, 4294967295},
      {0, true, 4294967295}, {0, false, 1}};
  PublicationSchedule schedule;
  for (const auto& [initialStNum, lockStNum, stNum] : requests) {
    auto config = test::publication(RetransmissionProfile::single());
    config.initialStNum = initialStNum;
    config.lockStNum = lockStNum;
    schedule.stateChange(config);
    EXPECT_EQ(schedule.currentStNum(), stNum);
    EXPECT_EQ(schedule.currentSqNum(), 0U);
  }
}

TEST(PublicationSchedule, NothingIsDueOnceEndedOrReplaced) {
  PublicationSchedule schedule;
  const auto config = test::publication(RetransmissionProfile::standard());
  for (const bool isReplaced : {false, true}) {
    schedule.stateChange(config);
    schedule.start(Instant{});
    ASSERT_TRUE(schedule.nextDeadline());
    // A state change whose frame was never sent has no schedule either.
    isReplaced ? schedule.stateChange(config) : schedule.end();
    EXPECT_FALSE(schedule.nextDeadline());
    EXPECT_FALSE(schedule.takeDue(Instant{} + std::chrono::hours(1)));
  }
}

}  // namespace
}  // namespace tarnlink
