#include "server/auth_gate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarnlink {
namespace {

using namespace std::chrono_literals;
using Clock = AuthGate::Clock;

constexpr Clock::time_point kStart{1000h};

ClientId client(int n) {
  ClientId id{};
  id.data[0] = static_cast<std::uint8_t>(n);
  id.data[1] = static_cast<std::uint8_t>(n >> 8);
  return id;
}

TEST(AuthGate, AMillionCodesTakeDaysHoweverManyConnectionsTryThem) {
  AuthGate gate({.burst = 10, .refill = 1s});
  constexpr int kConnections = 60;
  for (int i = 0; i < kConnections; ++i) ASSERT_FALSE(gate.enter(client(i), "attacker", kStart));
  int compared = 0;
  // Each tries again at once, for an hour; every other time on a new connection.
  for (auto now = kStart; now <= kStart + 1h; now += 250ms) {
    while (const auto next = gate.next(now)) {
      ++compared;
      gate.tell(*next, false);
      if (compared % 2 == 0) gate.leave(*next);
      ASSERT_FALSE(gate.enter(*next, "attacker", now));
    }
  }
  EXPECT_EQ(compared, 3600 + 10);
}

TEST(AuthGate, RightCodesCostNothingAndATokenComesBackWithTime) {
  AuthGate gate({.burst = 2, .refill = 1s});
  for (int i = 0; i < 100; ++i) {
    gate.enter(client(1), "a", kStart);
    ASSERT_TRUE(gate.next(kStart)) << i;
    gate.tell(client(1), true);
  }
  for (const bool isLet : {true, true, false}) {
    gate.enter(client(2), "a", kStart);
    EXPECT_EQ(gate.next(kStart).has_value(), isLet);
  }
  EXPECT_EQ(gate.due(), kStart + 1s);
  EXPECT_FALSE(gate.next(kStart + 999ms));
  EXPECT_TRUE(gate.next(kStart + 1s));
  EXPECT_EQ(gate.due(), std::nullopt) << "nobody waits";
}

TEST(AuthGate, WhoGuessesDoesNotKeepOutWhoKnowsTheCode) {
  const struct {
    const char* situation;
    std::string peer;  // Of the one who knows the code.
    bool isGuesserNew;
    int turnsUntilIn;
  } cases[] = {
      {"from elsewhere", "elsewhere", false, 1},
      {"from elsewhere, against ever new connections", "elsewhere", true, 1},
      {"from the same address", "guesser", false, 1},
      {"from the same address, against ever new connections", "guesser", true, 31},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    constexpr int kGuessers = 30;
    AuthGate gate({.burst = 1, .refill = 1s});
    auto now = kStart;
    int newest = kGuessers;
    const auto turn = [&] {
      const auto next = gate.next(now += 1s).value();
      gate.tell(next, false);
      if (c.isGuesserNew) gate.leave(next);
      gate.enter(c.isGuesserNew ? client(newest++) : next, "guesser", now);
      return next;
    };
    for (int i = 0; i < kGuessers; ++i) gate.enter(client(i), "guesser", now);
    for (int i = 0; i < 2 * kGuessers; ++i) turn();
    gate.enter(client(5000), c.peer, now);
    int turns = 1;
    while (turn() != client(5000)) ASSERT_LT(++turns, 100);
    EXPECT_EQ(turns, c.turnsUntilIn);
  }
}

TEST(AuthGate, WhereTooManyWaitOneIsRefusedWhoseTurnIsFar) {
  constexpr int kMost = static_cast<int>(AuthGate::kMaxWaiting);
  const auto full = [](AuthGate& gate, auto peerOf) {
    for (int i = 0; i < kMost; ++i) ASSERT_FALSE(gate.enter(client(i), peerOf(i), kStart));
  };
  const auto one = [](int) { return std::string("busy"); };
  const auto many = [](int i) { return "guesser " + std::to_string(i); };
  constexpr AuthDelay kDelay{.burst = kMost, .refill = 1h};
  {
    AuthGate gate(kDelay);
    full(gate, one);
    EXPECT_EQ(gate.enter(client(100), "busy", kStart), client(100)) << "the latest of equals";
    EXPECT_EQ(gate.enter(client(101), "other", kStart), client(kMost - 1)) << "of the busiest";
    gate.leave(client(7));
    EXPECT_EQ(gate.enter(client(102), "busy", kStart), std::nullopt) << "who leaves makes room";
  }
  // Guessers that have all had a wrong code give way to one that has not, wherever it is.
  for (const bool isOnePeer : {true, false}) {
    SCOPED_TRACE(isOnePeer);
    AuthGate gate(kDelay);
    const auto peerOf = [&](int i) { return isOnePeer ? one(i) : many(i); };
    full(gate, peerOf);
    while (const auto next = gate.next(kStart)) gate.tell(*next, false);
    full(gate, peerOf);
    EXPECT_EQ(gate.enter(client(100), isOnePeer ? "busy" : "owner", kStart), client(kMost - 1));
  }
}

TEST(AuthGate, ATurnIsForgottenInQuietTimes) {
  AuthGate gate({.burst = 2, .refill = 1s});
  gate.enter(client(1), "mistyped", kStart);
  gate.tell(gate.next(kStart).value(), false);
  const auto later = kStart + 1min;
  gate.leave(client(1));
  gate.enter(client(2), "mistyped", later);
  gate.enter(client(3), "new", later);
  EXPECT_EQ(gate.next(later), client(2)) << "by arrival";
}

}  // namespace
}  // namespace tarnlink
