// Real frames over a veth pair, through libpcap, to decoded messages.
#include "goosestack/goose_receiver.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "stack/capture_receiver.h"
#include "stack/send_handle.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;

constexpr auto kPatience = 5s;

Bytes gooseFrame(std::uint32_t sqNum, std::uint16_t vlanId = 0) {
  constexpr MacAddress kMac{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  GoosePdu fields;
  fields.goCBRef = "IED1CTRL/LLN0$GO$gcb01";
  fields.sqNum = sqNum;
  return EthernetFrame::build(kMac, kMac, vlanId, 4, *GoosePdu::encode(fields));
}

// Takes whatever the kernel lets through.
struct AnyFrame {
  struct Record {
    std::size_t footprint() const { return 1 << 10; }
    Bytes octets;
  };
  static constexpr const char* kEtherTypeHex = "0x88b8";
  static bool decode(ByteView frame, TimePoint, Record& taken) {
    taken.octets.assign(frame.begin(), frame.end());
    return true;
  }
};
using AnyReceiver = CaptureReceiver<AnyFrame>;

template <class IsSo>
bool within(std::chrono::seconds limit, IsSo isSo) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!isSo() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
  return isSo();
}

// Sockets of captures and send handles in this network, header line not counted.
int openPacketSockets() {
  std::ifstream table("/proc/self/net/packet");
  int lines = -1;
  for (std::string line; std::getline(table, line);) ++lines;
  return lines;
}

class GooseReceiverTest : public ProcessBusTest, public ::testing::WithParamInterface<CaptureMode> {
 protected:
  template <class T>
  T await(asio::awaitable<T> task) {
    auto result = asio::co_spawn(*pool, std::move(task), asio::use_future);
    if (result.wait_for(kPatience) != std::future_status::ready) {
      throw std::runtime_error("took too long");
    }
    return result.get();
  }
  template <class Record>
  static asio::awaitable<std::vector<Record>> takeAll(MessageStream<Record>& stream,
                                                      std::size_t count) {
    std::vector<Record> taken;
    typename MessageStream<Record>::Batch batch;
    while (taken.size() < count) {
      if (!co_await stream.next(batch)) break;
      taken.insert(taken.end(), batch.records().begin(), batch.records().end());
    }
    co_return taken;
  }
  template <class Record>
  std::vector<Record> take(MessageStream<Record>& stream, std::size_t count) {
    return await(takeAll(stream, count));
  }
  void send(const std::vector<Bytes>& frames) {
    const auto peer = systemSendHandles()->openSendHandle(kIed);
    ASSERT_TRUE(peer);
    for (std::size_t i = 0; i < frames.size(); ++i) {
      ASSERT_EQ((*peer)->sendPacket(frames[i]).status, SendOutcome::Status::sent);
      // The kernel's queue of received frames (net.core.netdev_max_backlog) must not drop any.
      if (i % 256 == 255) std::this_thread::sleep_for(1ms);
    }
  }
  void SetUp() override {
    ProcessBusTest::SetUp();
    pool.emplace(2);  // Its threads are born into the test's network.
    receiver = makeGooseReceiver(pool->executor(), GetParam());
  }

  std::optional<asio::thread_pool> pool;
  std::shared_ptr<GooseReceiver> receiver;
};

TEST_P(GooseReceiverTest, GooseArrivesDecodedAndNothingElseDoes) {
  auto stream = await(receiver->start(kBus, {}));
  ASSERT_TRUE(stream) << stream.error().description();
  EXPECT_EQ(
      std::system("PATH=$PATH:/usr/sbin:/sbin; ip -d link show bus0 | grep -q 'promiscuity 1'"), 0)
      << "frames to other stations are wanted, too";
  Bytes malformed = gooseFrame(7);
  malformed[22] = 0x62;
  const TimePoint before = timeNow();
  send({gooseFrame(1), malformed, gooseFrame(2, 100)});
  const TimePoint sent = timeNow();
  const auto messages = take(*stream, 2);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].sqNum, 1U);
  EXPECT_EQ(messages[0].vlanId, std::nullopt);
  EXPECT_EQ(messages[1].sqNum, 2U);
  EXPECT_EQ(messages[1].vlanId, 100);
  for (const auto& message : messages) {
    // The clock's nanoseconds are cut to microseconds on the way.
    EXPECT_GE(message.receivedAt + 2us, before);
    EXPECT_LE(message.receivedAt, sent + 10ms) << "the kernel's time, not the reader's";
  }
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, TheKernelKeepsOtherFramesBack) {
  const auto any =
      std::make_shared<AnyReceiver>(pool->executor(), GetParam(), GooseReceiver::kUnbounded);
  auto stream = await(any->start(kBus, {}));
  ASSERT_TRUE(stream);
  const Bytes plain = gooseFrame(1);
  const Bytes tagged = gooseFrame(2, 100);
  Bytes sv = plain;
  sv[13] = 0xBA;
  Bytes taggedSv = tagged;
  taggedSv[17] = 0xBA;
  send({sv, taggedSv, plain, tagged});
  const auto taken = take(*stream, 2);
  ASSERT_EQ(taken.size(), 2U);
  EXPECT_EQ(taken[0].octets, plain);
  EXPECT_EQ(taken[1].octets, tagged);
  await(any->stop());
}

TEST_P(GooseReceiverTest, StopOnASilentLinkEndsTheStreamAtOnce) {
  await(receiver->stop());  // Never started: returns at once.
  auto stream = await(receiver->start(kBus, {}));
  ASSERT_TRUE(stream);
  std::this_thread::sleep_for(20ms);  // Let the thread sit in its wait.
  const auto begin = std::chrono::steady_clock::now();
  await(receiver->stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
  EXPECT_EQ(openPacketSockets(), 0);
  EXPECT_TRUE(take(*stream, 1).empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, ANewStartReplacesTheOldCapture) {
  auto first = await(receiver->start(kBus, {}));
  auto second = await(receiver->start(kBus, {}));
  ASSERT_TRUE(first && second);
  send({gooseFrame(5)});
  EXPECT_EQ(take(*second, 1).size(), 1U) << "the end of the first must not stop the second";
  EXPECT_TRUE(take(*first, 1).empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, DroppingTheConsumerEndsTheCapture) {
  {
    auto stream = await(receiver->start(kBus, {}));
    ASSERT_TRUE(stream);
    EXPECT_EQ(openPacketSockets(), 1);
  }
  EXPECT_TRUE(within(kPatience, [] { return openPacketSockets() == 0; }));
}

TEST_P(GooseReceiverTest, ADeletedInterfaceIsReportedAndALinkDownIsNot) {
  std::promise<std::string> death;
  auto stream =
      await(receiver->start(kBus, {[&death](std::string reason) { death.set_value(reason); }, {}}));
  ASSERT_TRUE(stream);
  NetworkNamespace::setUp(kBus, false);
  NetworkNamespace::setUp(kBus, true);
  send({gooseFrame(1)});
  EXPECT_EQ(take(*stream, 1).size(), 1U) << "the capture resumes by itself";

  auto reason = death.get_future();
  EXPECT_EQ(reason.wait_for(0s), std::future_status::timeout);
  NetworkNamespace::removeLink(kIed);
  ASSERT_EQ(reason.wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(reason.get().empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, BehindAFullQueueTheKernelDropsAndEachFrameIsTakenOrCounted) {
  constexpr std::size_t kFrames = 30'000;  // More than either ring holds.
  constexpr std::size_t kLimit = 1'000 << 10;
  std::mutex lock;
  std::vector<CaptureDrops> told;
  const auto reports = [&] {
    const std::lock_guard hold(lock);
    return told;
  };
  const auto any = std::make_shared<AnyReceiver>(pool->executor(), GetParam(), kLimit);
  auto stream = await(any->start(kBus, {{}, [&](const CaptureDrops& drops) {
                                          const std::lock_guard hold(lock);
                                          told.push_back(drops);
                                        }}));
  ASSERT_TRUE(stream);
  const auto begin = std::chrono::steady_clock::now();
  send(std::vector<Bytes>(kFrames, gooseFrame(1)));
  ASSERT_TRUE(within(kPatience, [&] { return !reports().empty(); }))
      << "told although nothing is read";
  std::atomic<std::size_t> taken = 0;
  constexpr auto kCount = [](auto& from, auto& count) -> asio::awaitable<void> {
    MessageStream<AnyFrame::Record>::Batch batch;
    while (co_await from.next(batch)) count += batch.size();
  };
  auto counted = asio::co_spawn(*pool, kCount(*stream, taken), asio::use_future);
  EXPECT_TRUE(within(2 * kPatience, [&] { return taken + reports().back().total == kFrames; }))
      << "taken " << taken << ", dropped " << reports().back().total;
  const auto pauses = (std::chrono::steady_clock::now() - begin) / CaptureLoop::kDropPause;
  EXPECT_LE(reports().size(), static_cast<std::size_t>(pauses) + 1);
  await(any->stop());
  EXPECT_TRUE(reports().back().isLast);
  EXPECT_EQ(reports().back().fresh, 0U);
  EXPECT_EQ(taken + reports().back().total, kFrames);
  counted.get();
}

TEST_P(GooseReceiverTest, StoppingDoesNotWaitForRoom) {
  const auto any = std::make_shared<AnyReceiver>(pool->executor(), GetParam(), 0);
  const auto stream = await(any->start(kBus, {}));
  send({gooseFrame(1)});
  std::this_thread::sleep_for(150ms);  // More than the read time-out: the frame fills the queue.
  await(any->stop());
}

TEST_P(GooseReceiverTest, AnInterfaceThatCannotBeOpenedIsNamed) {
  const auto missing = await(receiver->start("nosuch0", {}));
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().which(), GooseError::Case::pcapOpenFailed);
  EXPECT_NE(missing.error().description().find("nosuch0"), std::string::npos);
}

TEST_P(GooseReceiverTest, MissingPrivilegeIsToldApart) {
  // Capabilities are per thread: the pool is made after they have gone.
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2]{};
  ASSERT_EQ(::syscall(SYS_capset, &header, none), 0);
  pool.emplace(1);
  const auto started = await(makeGooseReceiver(pool->executor(), GetParam())->start(kBus, {}));
  ASSERT_FALSE(started);
  EXPECT_EQ(started.error().which(), GooseError::Case::permissionDenied);
}

INSTANTIATE_TEST_SUITE_P(Modes, GooseReceiverTest,
                         ::testing::Values(CaptureMode::standard, CaptureMode::lowLatency),
                         [](const auto& mode) {
                           return mode.param == CaptureMode::standard ? "Standard" : "LowLatency";
                         });

}  // namespace
}  // namespace tarnlink::test
