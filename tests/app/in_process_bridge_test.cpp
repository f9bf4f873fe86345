#include "app/host/in_process_bridge.h"

#include <gtest/gtest.h>

#include <boost/asio/executor_work_guard.hpp>
#include <future>
#include <thread>

#include "tests/server/bridge_harness.h"

namespace tarnlink {
namespace {

using namespace std::chrono_literals;

TEST(InProcessBridge, DrivesAServerOnAnotherThread) {
  test::BridgeHarness harness;
  auto work = boost::asio::make_work_guard(harness.io);
  std::thread server([&] { harness.io.run(); });
  InProcessBridge bridge(harness.io.get_executor(), harness.server, harness.preferences);

  std::promise<BridgeState> started;
  bridge.start(kDefaultBridgePort, [&](const BridgeState& state) { started.set_value(state); });
  auto state = started.get_future();
  ASSERT_EQ(state.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(state.get().isRunning);
  EXPECT_EQ(bridge.pairingCode(), "042137");

  std::promise<void> switched;
  bridge.setActiveInterface("en-7.5", [&] { switched.set_value(); });
  ASSERT_EQ(switched.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_EQ(bridge.activeInterface(), "en-7.5");

  bridge.stop();
  work.reset();
  server.join();
  EXPECT_EQ(harness.logLines.back(), "[BridgeServer] Stopped");

  harness.io.restart();
  std::promise<BridgeState> refused;
  bridge.start(0, [&](const BridgeState& refusal) { refused.set_value(refusal); });
  harness.settle();
  EXPECT_EQ(refused.get_future().get().failure, "Invalid bridge port: 0");
}

}  // namespace
}  // namespace tarnlink
