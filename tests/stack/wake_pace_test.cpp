#include "stack/wake_pace.h"

#include <gtest/gtest.h>

namespace tarnlink::test {
namespace {

using std::chrono::microseconds;
using Clock = WakePace::Clock;

// Messages that take no time to deal with, each given as the wait since the thread was ready for
// it.
TEST(WakePace, OnlyMessagesInQuickSuccessionCollect) {
  Clock::time_point now{};
  WakePace pace(now);
  const struct {
    const char* what;
    microseconds wait;
    bool collects;
  } messages[] = {
      {"the first after a quiet moment", microseconds(5'000), false},
      {"one a millisecond", microseconds(1'000), false},
      {"just slow enough", WakePace::kQuick, false},
      {"quick", WakePace::kQuick - microseconds(1), true},
      {"there already when the pause ends", microseconds(0), true},
      {"quick after the pause", microseconds(499), true},
      {"quiet after the pause", microseconds(500), false},
      {"quick again", microseconds(50), true},
  };
  for (const auto& message : messages) {
    SCOPED_TRACE(message.what);
    now += message.wait;
    const auto next = pace.next(now);
    EXPECT_EQ(next - now, message.collects ? WakePace::kCollect : microseconds(0));
    now = next;
  }
}

}  // namespace
}  // namespace tarnlink::test
