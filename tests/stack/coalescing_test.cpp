#include "stack/coalescing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace tarnlink::test {
using namespace goosestack;
namespace {

using std::chrono::microseconds;

constexpr microseconds kSecond{1'000'000};

// Messages at a given rate for a second, dealt with in no time; those that come during a pause are
// found together at its end.
TEST(Coalescing, OnlyASteadyQuickFlowCollects) {
  const struct {
    const char* flow;
    microseconds spacing;
    int together;
    int mostWakes;
    bool collects;
  } flows[] = {
      {"one each millisecond", microseconds(1'000), 1, 1'000, false},
      {"as fast as it may be", Coalescing::kSpacing, 1, 2'000, false},
      {"bursts of several devices", microseconds(20'000), Coalescing::kAtOnce, 50, false},
      {"somewhat too fast", microseconds(300), 1, 1'100, true},
      {"a flood", microseconds(50), 1, 1'100, true},
      {"Sampled Values of four merging units", microseconds(250), 4, 1'100, true},
  };
  for (const auto& flow : flows) {
    SCOPED_TRACE(flow.flow);
    Coalescing pace;
    Coalescing::Clock::time_point now{};
    auto next = now;
    int wakes = 0;
    int pauses = 0;
    while (now < Coalescing::Clock::time_point{} + kSecond) {
      int messages = 0;
      for (now = std::max(now, next); next <= now; next += flow.spacing) messages += flow.together;
      ++wakes;
      const auto pause = pace.pauseAfter(messages, now);
      pauses += pause > pause.zero() ? 1 : 0;
      now += pause;
    }
    EXPECT_LE(wakes, flow.mostWakes + 1);
    EXPECT_EQ(pauses > 0, flow.collects);
  }
}

TEST(Coalescing, AFloodIsForgottenSoonAfterItsEnd) {
  Coalescing pace;
  Coalescing::Clock::time_point now{};
  while (now < Coalescing::Clock::time_point{} + kSecond) now += pace.pauseAfter(1000, now);
  EXPECT_GT(pace.pauseAfter(1, now).count(), 0);
  now += Coalescing::kSpacing * (Coalescing::kAtOnce + 1);
  EXPECT_EQ(pace.pauseAfter(1, now).count(), 0);
}

}  // namespace
}  // namespace tarnlink::test
