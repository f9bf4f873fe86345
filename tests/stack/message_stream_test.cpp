// The road between a capture thread and its consumer: no record may be lost, doubled or reordered,
// and either end may go at any time.
#include "goosestack/message_stream.h"

#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace tarnlink::test {
using namespace goosestack;
namespace {

namespace asio = boost::asio;
using State = StreamState<std::string>;
using Stream = MessageStream<std::string>;

void yieldOne(State& state, std::string text) {
  RecycledBatch<std::string> batch;
  batch.append() = std::move(text);
  state.yield(batch);
}

asio::awaitable<void> consume(Stream stream, std::vector<std::string>& taken) {
  Stream::Batch batch;
  while (co_await stream.next(batch)) {
    taken.insert(taken.end(), batch.records().begin(), batch.records().end());
  }
}

class MessageStreamTest : public ::testing::Test {
 protected:
  void consumeAll() {
    asio::co_spawn(io, consume(Stream(state), taken),
                   [this](std::exception_ptr failure) { isDone = !failure; });
  }

  asio::io_context io;
  std::shared_ptr<State> state = std::make_shared<State>();
  std::vector<std::string> taken;
  bool isDone = false;
};

TEST_F(MessageStreamTest, ABusyProducerLosesNothing) {
  constexpr int kRecords = 100'000;
  consumeAll();
  std::thread producer([this] {
    RecycledBatch<std::string> batch;
    for (int i = 0; i < kRecords; ++i) {
      batch.append() = std::to_string(i);
      if (i % 7 == 0) state->yield(batch);
    }
    state->yield(batch);
    state->finish();
  });
  io.run();
  producer.join();
  EXPECT_TRUE(isDone);
  ASSERT_EQ(taken.size(), kRecords);
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(taken[i], std::to_string(i));
}

TEST_F(MessageStreamTest, RecordsQueuedBeforeTheEndAreDelivered) {
  yieldOne(*state, "a");
  state->finish();
  yieldOne(*state, "late");
  consumeAll();
  io.run();
  EXPECT_TRUE(isDone);
  EXPECT_EQ(taken, std::vector<std::string>{"a"});
}

TEST_F(MessageStreamTest, CancellingDropsWhatIsQueuedAndEndsTheWait) {
  for (const bool isWaiting : {false, true}) {
    SCOPED_TRACE(isWaiting);
    state = std::make_shared<State>();
    isDone = false;
    taken.clear();
    Stream stream(state);
    const auto cancel = stream.canceller();
    asio::co_spawn(io, consume(std::move(stream), taken),
                   [this](std::exception_ptr failure) { isDone = !failure; });
    if (isWaiting) {
      io.restart();
      io.poll();
    }
    yieldOne(*state, "queued");
    cancel();
    io.restart();
    io.run();
    EXPECT_TRUE(isDone);
    EXPECT_TRUE(taken.empty());
  }
}

TEST_F(MessageStreamTest, TheTerminationHandlerRunsOnceWhoeverEndsIt) {
  for (const bool byConsumer : {false, true}) {
    auto ended = std::make_shared<State>();
    int calls = 0;
    ended->onTermination([&calls] { ++calls; });
    {
      Stream stream(ended);
      if (!byConsumer) ended->finish();
    }
    ended->finish();
    EXPECT_EQ(calls, 1);
  }
}

// Nobody is waiting yet when it happens: the wait must end by itself.
TEST_F(MessageStreamTest, WhatHappensBeforeTheWaitEndsIt) {
  const std::function<void()> events[] = {[this] { state->finish(); },
                                          [this] { yieldOne(*state, "a"); }};
  for (const auto& happen : events) {
    state = std::make_shared<State>();
    State::Wait wait(*state, io.get_executor());
    happen();
    bool isOver = false;
    wait.async([&isOver](boost::system::error_code) { isOver = true; });
    io.restart();
    io.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(isOver);
  }
}

struct Weighed {
  Weighed() { ++alive; }
  Weighed(Weighed&& other) noexcept : octets(other.octets) { ++alive; }
  Weighed& operator=(Weighed&& other) noexcept = default;
  ~Weighed() { --alive; }
  std::size_t footprint() const { return octets; }

  static int alive;
  std::size_t octets = 0;
};
int Weighed::alive = 0;

class Backlog : public ::testing::Test {
 protected:
  using Batch = RecycledBatch<Weighed>;
  static constexpr std::size_t kLimit = 1'000'000;

  void yield(std::size_t octets) {
    batch.append().octets = octets;
    batch.weighLast();
    state.yield(batch);
  }
  std::size_t take() {
    bool ended = false;
    state.take(taken, ended);
    return taken.size();
  }

  StreamState<Weighed> state{kLimit};
  Batch batch, taken;
};

TEST_F(Backlog, IsFullFromItsLimitOnUntilHalfIsLeft) {
  for (int round = 0; round < 2; ++round) {
    std::size_t left = 0;
    while (!state.isFull()) {
      ASSERT_LE(left, kLimit);
      yield(1000);
      left += 1000;
    }
    EXPECT_GT(left, kLimit);
    while (state.isFull()) {
      ASSERT_GT(left, kLimit / 2);
      left -= 1000 * take();
    }
    EXPECT_LE(left, kLimit / 2);
    while (take() != 0) {
    }
  }
  while (!state.isFull()) yield(1000);
  state.finish();
  EXPECT_FALSE(state.isFull()) << "a producer must not wait for a consumer that has gone";
}

TEST_F(Backlog, IsConsumedInTurnsOfBoundedSize) {
  const struct {
    std::size_t octets, turn;
  } records[] = {
      {1, Batch::kFullRecords}, {Batch::kFullOctets / 4, 4}, {2 * Batch::kFullOctets, 1}};
  for (const auto& [octets, turn] : records) {
    for (int i = 0; i < 200; ++i) yield(octets);
    std::size_t count = 0;
    while (const auto size = take()) {
      EXPECT_LE(size, turn);
      EXPECT_TRUE(size == turn || (count += size) == 200 % turn) << "but for the last one";
    }
  }
}

TEST_F(Backlog, KeepsStorageOfAFewBurstsAndOfNoHugeRecord) {
  for (int i = 0; i < 20'000; ++i) yield(1000);
  while (take() != 0) {
  }
  EXPECT_LE(Weighed::alive, int{Batch::kFullRecords} * int(StreamState<Weighed>::kSpareBursts + 2));

  for (const std::size_t octets : {Batch::kKeptFootprint, Batch::kKeptFootprint + 1}) {
    Batch records;
    records.append().octets = octets;
    records.clear();
    EXPECT_EQ(records.append().octets == octets, octets == Batch::kKeptFootprint);
  }
}

}  // namespace
}  // namespace tarnlink::test
