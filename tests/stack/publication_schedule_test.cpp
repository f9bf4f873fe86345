#include "stack/publication_schedule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "tests/stack/publishing_fixtures.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using std::chrono::milliseconds;
using Instant = PublicationSchedule::Instant;

// Nobody looks at the schedule between these times. Milliseconds after the state change.
struct Stall {
  int from = 0, to = 0;
};

// The first ten seconds: retransmissions (R) and heartbeats (H) with their times, "R2 R6 ...
// H4000". Every wake-up comes a little late, as in life; the deadlines must not take that over.
std::string play(PublicationSchedule& schedule, Stall stall = {}) {
  const Instant start{std::chrono::hours(7)};
  std::string course;
  schedule.start(start);
  while (const auto deadline = schedule.nextDeadline()) {
    const auto due = (*deadline - start) / milliseconds(1);
    if (due >= 10000) break;
    EXPECT_FALSE(schedule.takeDue(*deadline - std::chrono::nanoseconds(1)));
    const auto time = due >= stall.from && due < stall.to ? stall.to : due;
    const std::uint32_t announced = schedule.nextSqNum();
    const auto kind = schedule.takeDue(start + milliseconds(time) + std::chrono::microseconds(900));
    EXPECT_EQ(schedule.currentSqNum(), announced);
    const bool isHeartbeat = kind == PublicationSchedule::Transmission::heartbeat;
    course += (isHeartbeat ? "H" : "R") + std::to_string(time) + " ";
  }
  return course;
}

TEST(PublicationSchedule, SendsAsItsProfileSays) {
  const auto& standard = RetransmissionProfile::standard();
  const struct {
    RetransmissionProfile profile;
    Stall stall;
    const char* course;
  } cases[] = {
      {standard, {}, "R2 R6 R14 R30 R62 R126 R1126 R2126 R3126 H4000 R4126 H8000 "},
      {RetransmissionProfile::fast(),
       {},
       "R2 R6 R14 R30 R62 R126 R254 R510 R1022 H2000 R2046 H4000 R4094 H6000 H8000 "},
      {RetransmissionProfile::single(), {}, ""},
      {{{1000, 1000, 500}, 2000}, {}, "R1000 R2000 H2000 R2500 H4000 H6000 H8000 "},
      // Of the burst every frame leaves, late and at its intervals.
      {standard, {25, 50}, "R2 R6 R14 R50 R62 R126 R1126 R2126 R3126 H4000 R4126 H8000 "},
      {standard, {25, 70}, "R2 R6 R14 R70 R102 R166 R1166 R2166 R3166 H4000 R4166 H8000 "},
      {{{5, 0, -3, 5}, 0}, {}, "R5 R5 R5 R10 "},
      {{{}, 2000}, {1500, 6000}, "H6000 H8000 "},  // Ends at a deadline: no second one at once.
      {{{}, 2000}, {1500, 7500}, "H7500 H8000 "},
  };
  for (const auto& [profile, stall, course] : cases) {
    SCOPED_TRACE(course);
    PublicationSchedule schedule;
    schedule.stateChange(test::publication(profile));
    EXPECT_EQ(play(schedule, stall), course);
    const std::string_view frames = course;  // What a stall swallows takes no number.
    EXPECT_EQ(schedule.currentSqNum(), std::count(frames.begin(), frames.end(), ' '));
  }
}

TEST(PublicationSchedule, NumbersCountOnWrapAndMayBeLocked) {
  constexpr std::uint32_t kLargest = 4294967295;
  const struct {
    std::uint32_t initialStNum, initialSqNum;
    bool lockStNum, lockSqNum;
    std::uint32_t stNum, sqNum;  // The latter after one retransmission.
  } requests[] = {
      {0, 0, true, false, 0, 1},
      {0, 0, false, false, 1, 1},
      {0, 5, false, true, 2, 5},
      {7, kLargest - 1, false, false, 7, kLargest},
      {0, kLargest, true, false, 7, 0},
      {9, kLargest, true, true, 9, kLargest},
      {kLargest, 0, false, false, kLargest, 1},
      {0, 0, false, false, 1, 1},
  };
  PublicationSchedule schedule;  // One for all: each request follows the one before.
  for (const auto& request : requests) {
    SCOPED_TRACE(&request - requests);
    auto config = test::publication({{1}, 0});
    config.initialStNum = request.initialStNum;
    config.initialSqNum = request.initialSqNum;
    config.lockStNum = request.lockStNum;
    config.lockSqNum = request.lockSqNum;
    schedule.stateChange(config);
    EXPECT_EQ(schedule.currentStNum(), request.stNum);
    EXPECT_EQ(schedule.currentSqNum(), request.initialSqNum);
    play(schedule);
    EXPECT_EQ(schedule.currentSqNum(), request.sqNum);
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
  }
}

}  // namespace
}  // namespace tarnlink
