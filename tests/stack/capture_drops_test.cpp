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
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;

std::atomic<bool> isStuck;
std::atomic<std::uint64_t> taken;

struct StuckDecoder {
  struct Record {};
  static constexpr const char* kEtherTypeHex = "0x88b8";
  bool decode(ByteView, TimePoint, Record&) {
    while (isStuck) std::this_thread::sleep_for(1ms);
    ++taken;
    return false;
  }
};

class CaptureDropsTest : public ProcessBusTest,
                         public ::testing::WithParamInterface<CaptureMode> {};

TEST_P(CaptureDropsTest, FramesBeyondTheRingAreCountedAndToldOnceASecondAndAtTheEnd) {
  constexpr std::uint64_t kFrames = 30'000;  // More than either ring holds.
  isStuck = true;
  taken = 0;
  std::mutex lock;
  std::vector<CaptureDrops> told;
  asio::thread_pool pool{1};
  const auto reports = [&] {
    const std::lock_guard hold(lock);
    return told;
  };
  const auto receiver =
      std::make_shared<CaptureReceiver<StuckDecoder>>(pool.executor(), GetParam());
  auto start = receiver->start(kBus, {{}, [&](const CaptureDrops& drops) {
                                        const std::lock_guard hold(lock);
                                        told.push_back(drops);
                                      }});
  const auto stream = asio::co_spawn(pool, std::move(start), asio::use_future).get();
  ASSERT_TRUE(stream);

  const auto peer = systemSendHandles()->openSendHandle(kIed).value();
  Bytes frame(60, 0);
  frame[12] = 0x88;
  frame[13] = 0xB8;
  const auto begin = std::chrono::steady_clock::now();
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    peer->sendPacket(frame);
    // The kernel's queue of received frames (net.core.netdev_max_backlog) must not drop any.
    if (i % 256 == 0) std::this_thread::sleep_for(1ms);
  }
  std::this_thread::sleep_until(begin + CaptureLoop::kDropPause);
  EXPECT_TRUE(reports().empty()) << "nobody is there who could tell";
  isStuck = false;
  const auto deadline = begin + 10s;
  const auto sum = [&] { return taken + (reports().empty() ? 0 : reports().back().total); };
  while (sum() < kFrames && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_EQ(reports().size(), 1U);
  EXPECT_GT(reports()[0].fresh, 0U);
  EXPECT_EQ(sum(), kFrames) << "each frame was taken or counted as dropped";

  asio::co_spawn(pool, receiver->stop(), asio::use_future).get();
  ASSERT_EQ(reports().size(), 2U);
  EXPECT_TRUE(reports()[1].isLast);
  EXPECT_EQ(reports()[1].fresh, 0U);
  EXPECT_EQ(reports()[1].total, reports()[0].total);
}

INSTANTIATE_TEST_SUITE_P(Modes, CaptureDropsTest,
                         ::testing::Values(CaptureMode::standard, CaptureMode::lowLatency),
                         [](const auto& mode) {
                           return mode.param == CaptureMode::standard ? "Standard" : "LowLatency";
                         });

}  // namespace
}  // namespace tarnlink::test
