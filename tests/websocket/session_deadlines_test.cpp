#include "websocket/session_deadlines.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarnlink::test {
namespace {

using Due = SessionDeadlines::Due;
using std::chrono::milliseconds;

// Time goes in milliseconds from accept. What happens is a letter and when: "u" the upgrade is
// done, "s", "w" and "a" a change of standing, "r" the library has read, "c" close within 100 ms.
struct Case {
  const char* name;
  std::vector<std::pair<char, int>> happens;
  bool isListening;
  std::vector<std::pair<int, Due>> due;  // all that is due within three seconds
};

TEST(SessionDeadlines, ComeInTime) {
  const Case cases[] = {
      {"no upgrade", {}, true, {{300, Due::handshakeTimeout}}},
      {"stranger", {{'u', 0}}, true, {{500, Due::ping}, {800, Due::notAdmitted}}},
      {"waits to be admitted",
       {{'u', 0}, {'w', 500}, {'r', 900}, {'s', 1200}},
       true,
       {{500, Due::ping}, {1400, Due::ping}, {1500, Due::notAdmitted}}},
      {"silent", {{'a', 0}, {'u', 100}}, true, {{600, Due::ping}, {1100, Due::idleTimeout}}},
      {"answers the ping",
       {{'a', 0}, {'u', 100}, {'r', 700}},
       true,
       {{600, Due::ping}, {1200, Due::ping}, {1700, Due::idleTimeout}}},
      {"unheard",
       {{'a', 0}, {'u', 0}, {'c', 1600}},
       false,
       {{500, Due::nothing}, {1000, Due::nothing}, {1500, Due::nothing}, {1700, Due::close}}},
      {"closing", {{'u', 0}, {'c', 50}, {'c', 90}}, true, {{150, Due::close}}},
  };
  WebSocketLimits limits;
  limits.handshake = milliseconds(300);
  limits.strangerTime = milliseconds(800);
  limits.idle = milliseconds(1000);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SessionDeadlines::Time start(std::chrono::hours(1));
    SessionDeadlines deadlines(limits, start);
    auto lastRead = start;
    auto next = c.happens.begin();
    std::vector<std::pair<int, Due>> due;
    for (int at = 0; at <= 3000; at += 10) {
      const auto now = start + milliseconds(at);
      for (; next != c.happens.end() && next->second == at; ++next) {
        if (next->first == 'u') deadlines.upgraded(now);
        if (next->first == 's') deadlines.setStanding(Standing::stranger, now);
        if (next->first == 'w') deadlines.setStanding(Standing::waiting, now);
        if (next->first == 'a') deadlines.setStanding(Standing::admitted, now);
        if (next->first == 'r') lastRead = now;
        if (next->first == 'c') deadlines.closeBy(now + milliseconds(100));
      }
      const bool isTime = deadlines.next(lastRead) <= now;
      const auto what = deadlines.due(now, lastRead, c.isListening);
      EXPECT_TRUE(isTime || what == Due::nothing) << at;
      if (isTime) due.emplace_back(at, what);
      if (what != Due::nothing && what != Due::ping) break;
    }
    EXPECT_EQ(due, c.due);
  }
}

}  // namespace
}  // namespace tarnlink::test
