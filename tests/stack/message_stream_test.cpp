// The road between a capture thread and its consumer: no record may be lost, doubled or reordered,
// and either end may go at any time.
#include "stack/message_stream.h"

#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <string>
#include <thread>

namespace tarnlink::test {
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

TEST(RecycledBatchTest, KeepsStorageOfConsumedRecordsButNotOfBursts) {
  RecycledBatch<std::string> batch;
  batch.append() = std::string(1000, 'x');
  const char* storage = batch.records()[0].data();
  batch.clear();
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.append().data(), storage);

  for (std::size_t i = 0; i < 3 * RecycledBatch<std::string>::kKeptRecords; ++i) batch.append();
  batch.clear();
  std::size_t kept = 0;
  while (batch.append().capacity() >= 1000) ++kept;
  EXPECT_LE(kept, RecycledBatch<std::string>::kKeptRecords);
}

}  // namespace
}  // namespace tarnlink::test
