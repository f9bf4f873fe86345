// A capture that is too slow for its link says how many frames it has lost.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <mutex>
#include <vector>

#include "stack/capture_receiver.h"
#include "stack/send_handle.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;

constexpr auto kStopLimit = 1s;
constexpr std::size_t kFootprint = 1 << 10;
constexpr std::size_t kLimit = 1000 * kFootprint;

struct AnyFrame {
  struct Record {
    std::size_t footprint() const { return kFootprint; }
  };
  static constexpr const char* kEtherTypeHex = "0x88b8";
  bool decode(ByteView, TimePoint, Record&) { return true; }
};
using Stream = MessageStream<AnyFrame::Record>;

asio::awaitable<void> count(Stream& stream, std::atomic<std::uint64_t>& taken) {
  Stream::Batch batch;
  while (co_await stream.next(batch)) taken += batch.size();
}

class CaptureDropsTest : public ProcessBusTest,
                         public ::testing::WithParamInterface<CaptureMode> {};

TEST_P(CaptureDropsTest, BehindAFullQueueTheKernelDropsAndEachFrameIsTakenOrCounted) {
  constexpr std::uint64_t kFrames = 30'000;  // More than either ring holds.
  std::mutex lock;
  std::vector<CaptureDrops> told;
  asio::thread_pool pool{1};
  const auto reports = [&] {
    const std::lock_guard hold(lock);
    return told;
  };
  const auto receiver =
      std::make_shared<CaptureReceiver<AnyFrame>>(pool.executor(), GetParam(), kLimit);
  auto start = receiver->start(kBus, {{}, [&](const CaptureDrops& drops) {
                                        const std::lock_guard hold(lock);
                                        told.push_back(drops);
                                      }});
  auto stream = asio::co_spawn(pool, std::move(start), asio::use_future).get();
  ASSERT_TRUE(stream);

  const auto peer = systemSendHandles()->openSendHandle(kIed).value();
  Bytes frame(60, 0);
  frame[12] = 0x88;
  frame[13] = 0xB8;
  const auto send = [&] {
    for (std::uint64_t i = 0; i < kFrames; ++i) {
      peer->sendPacket(frame);
      // The kernel's queue of received frames (net.core.netdev_max_backlog) must not drop any.
      if (i % 256 == 0) std::this_thread::sleep_for(1ms);
    }
  };
  const auto within = [](std::chrono::seconds limit, auto isSo) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!isSo() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    return isSo();
  };
  const auto begin = std::chrono::steady_clock::now();
  send();
  ASSERT_TRUE(within(5s, [&] { return !reports().empty(); })) << "told although nothing is read";
  std::atomic<std::uint64_t> taken = 0;
  auto counted = asio::co_spawn(pool, count(*stream, taken), asio::use_future);
  EXPECT_TRUE(within(10s, [&] { return taken + reports().back().total == kFrames; }))
      << "taken " << taken << ", dropped " << reports().back().total;
  const auto pauses = (std::chrono::steady_clock::now() - begin) / CaptureLoop::kDropPause;
  EXPECT_LE(reports().size(), static_cast<std::size_t>(pauses) + 1);

  asio::co_spawn(pool, receiver->stop(), asio::use_future).get();
  EXPECT_TRUE(reports().back().isLast);
  EXPECT_EQ(reports().back().fresh, 0U);
  EXPECT_EQ(taken + reports().back().total, kFrames);
  counted.get();
}

TEST_P(CaptureDropsTest, StoppingDoesNotWaitForRoom) {
  asio::thread_pool pool{1};
  const auto receiver = std::make_shared<CaptureReceiver<AnyFrame>>(pool.executor(), GetParam(), 0);
  auto stream = asio::co_spawn(pool, receiver->start(kBus, {}), asio::use_future).get();
  const auto peer = systemSendHandles()->openSendHandle(kIed).value();
  Bytes frame(60, 0);
  frame[12] = 0x88;
  frame[13] = 0xB8;
  peer->sendPacket(frame);
  std::this_thread::sleep_for(150ms);  // More than the read time-out: the frame fills the queue.
  auto stopped = asio::co_spawn(pool, receiver->stop(), asio::use_future);
  EXPECT_EQ(stopped.wait_for(kStopLimit), std::future_status::ready);
  stream->canceller()();
  stopped.get();
}

INSTANTIATE_TEST_SUITE_P(Modes, CaptureDropsTest,
                         ::testing::Values(CaptureMode::standard, CaptureMode::lowLatency),
                         [](const auto& mode) {
                           return mode.param == CaptureMode::standard ? "Standard" : "LowLatency";
                         });

}  // namespace
}  // namespace tarnlink::test
