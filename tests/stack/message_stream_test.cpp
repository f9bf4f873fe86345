// From a capture thread to its consumer: no record may be lost, doubled or reordered, and either
// end may go at any time.
#include "goosestack/message_stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <thread>

namespace tarnlink::test {
using namespace goosestack;
namespace {

namespace asio = boost::asio;

struct Weighed {
  explicit Weighed(int given = 0, std::size_t weight = 1) : number(given), octets(weight) {
    ++alive;
  }
  Weighed(Weighed&& other) noexcept : Weighed(other.number, other.octets) {}
  Weighed& operator=(Weighed&& other) noexcept = default;
  ~Weighed() { --alive; }
  std::size_t footprint() const { return octets; }

  static std::atomic<int> alive;
  int number;
  std::size_t octets;
};
std::atomic<int> Weighed::alive = 0;

using State = StreamState<Weighed>;
using Batch = RecycledBatch<Weighed>;

class MessageStreamTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kLimit = 1'000'000;

  void yield(int number, std::size_t octets = 1) {
    batch.append() = Weighed(number, octets);
    batch.weighLast();
    state->yield(batch);
  }
  std::size_t take() {
    bool ended = false;
    state->take(batch, ended);
    const std::size_t size = batch.size();
    batch.clear();
    return size;
  }
  static asio::awaitable<void> consume(MessageStream<Weighed> stream, std::vector<int>& numbers) {
    Batch burst;
    while (co_await stream.next(burst)) {
      for (const Weighed& record : burst.records()) numbers.push_back(record.number);
    }
  }
  std::function<void()> consumeAll() {
    MessageStream<Weighed> stream(state);
    auto cancel = stream.canceller();
    asio::co_spawn(io, consume(std::move(stream), taken),
                   [this](std::exception_ptr failure) { isDone = !failure; });
    return cancel;
  }
  void run() {
    io.restart();
    io.run_for(std::chrono::seconds(20));
  }

  asio::io_context io;
  std::shared_ptr<State> state = std::make_shared<State>(kLimit);
  Batch batch;
  std::vector<int> taken;
  bool isDone = false;
};

TEST_F(MessageStreamTest, ABusyProducerLosesNothing) {
  constexpr int kRecords = 100'000;
  consumeAll();
  std::thread producer([this] {
    for (int i = 0; i < kRecords; ++i) {
      batch.append() = Weighed(i);
      if (i % 7 == 0) state->yield(batch);
      if (i % 1'000 == 0) std::this_thread::yield();
    }
    state->yield(batch);
    state->finish();
  });
  run();
  producer.join();
  EXPECT_TRUE(isDone);
  ASSERT_EQ(taken.size(), kRecords);
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(taken[static_cast<std::size_t>(i)], i);
}

TEST_F(MessageStreamTest, WhateverEndsItEndsTheConsumerAndIsToldOnce) {
  const struct {
    bool isConsumerWaiting;
    bool isCancelled;  // Otherwise finished.
  } cases[] = {{false, false}, {false, true}, {true, false}, {true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.isConsumerWaiting + 2 * c.isCancelled);
    state = std::make_shared<State>();
    int told = 0;
    state->onTermination([&told] { ++told; });
    taken.clear();
    isDone = false;
    const auto cancel = consumeAll();
    if (c.isConsumerWaiting) {
      io.restart();
      io.poll();
    }
    yield(1);
    c.isCancelled ? cancel() : state->finish();
    yield(2);
    run();
    EXPECT_TRUE(isDone);
    EXPECT_EQ(taken, c.isCancelled ? std::vector<int>() : std::vector{1});
    EXPECT_EQ(told, 1);
  }
}

TEST_F(MessageStreamTest, WhatHappensBeforeTheWaitEndsIt) {
  const std::function<void()> events[] = {[this] { state->finish(); }, [this] { yield(1); }};
  for (const auto& happen : events) {
    state = std::make_shared<State>();
    EXPECT_EQ(take(), 0U);
    happen();
    auto place = state->place(io.get_executor());
    bool isOver = false;
    asio::co_spawn(io, place.wait(), [&isOver](std::exception_ptr) { isOver = true; });
    io.restart();
    io.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(isOver);
  }
}

TEST_F(MessageStreamTest, IsFullFromItsLimitOnUntilHalfIsLeft) {
  for (int round = 0; round < 2; ++round) {
    std::size_t left = 0;
    while (!state->isFull()) {
      ASSERT_LE(left, kLimit);
      yield(1, 1000);
      left += 1000;
    }
    EXPECT_GT(left, kLimit);
    while (state->isFull()) {
      ASSERT_GT(left, kLimit / 2);
      left -= 1000 * take();
    }
    EXPECT_LE(left, kLimit / 2);
    while (take() != 0) {
    }
  }
  while (!state->isFull()) yield(1, 1000);
  EXPECT_FALSE(state->yield(batch));
  state->finish();
  EXPECT_FALSE(state->isFull()) << "a producer must not wait for a consumer that has gone";
  EXPECT_TRUE(state->yield(batch));
}

TEST_F(MessageStreamTest, IsConsumedInBurstsOfBoundedSize) {
  const struct {
    std::size_t octets, burst;
  } records[] = {
      {1, Batch::kFullRecords}, {Batch::kFullOctets / 4, 4}, {2 * Batch::kFullOctets, 1}};
  for (const auto& [octets, burst] : records) {
    for (int i = 0; i < 200; ++i) yield(1, octets);
    for (std::size_t left = 200; left > 0;) {
      const auto size = take();
      ASSERT_EQ(size, std::min(left, burst));
      left -= size;
    }
  }
}

TEST_F(MessageStreamTest, KeepsStorageOfAFewBurstsAndOfNoHugeRecord) {
  for (int i = 0; i < 20'000; ++i) yield(1, 1000);
  while (take() != 0) {
  }
  EXPECT_LE(Weighed::alive, int{Batch::kFullRecords} * int{State::kSpareBursts + 2});
  for (const std::size_t octets : {Batch::kKeptFootprint, Batch::kKeptFootprint + 1}) {
    Batch records;
    records.append().octets = octets;
    records.clear();
    EXPECT_EQ(records.append().octets == octets, octets == Batch::kKeptFootprint);
  }
}

}  // namespace
}  // namespace tarnlink::test
