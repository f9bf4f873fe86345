// Real frames over a veth pair, through libpcap, to decoded messages.
#include "goosestack/goose_receiver.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
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

constexpr MacAddress kDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
constexpr MacAddress kSource{0x02, 0, 0, 0, 0, 0x09};
constexpr auto kPatience = 5s;

Bytes gooseFrame(std::uint32_t sqNum, std::uint16_t vlanId = 0) {
  GoosePdu fields;
  fields.header.appId = 0x1000;
  fields.goCBRef = "IED1CTRL/LLN0$GO$gcb01";
  fields.datSet = "IED1CTRL/LLN0$ds";
  fields.sqNum = sqNum;
  return EthernetFrame::build(kDestination, kSource, vlanId, 4, *GoosePdu::encode(fields));
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
  asio::awaitable<std::vector<GooseMessage>> take(MessageStream<GooseMessage>& stream,
                                                  std::size_t count) {
    std::vector<GooseMessage> messages;
    MessageStream<GooseMessage>::Batch batch;
    while (messages.size() < count) {
      if (!co_await stream.next(batch)) break;
      messages.insert(messages.end(), batch.records().begin(), batch.records().end());
    }
    co_return messages;
  }
  void send(const std::vector<Bytes>& frames) {
    const auto peer = systemSendHandles()->openSendHandle(kIed);
    ASSERT_TRUE(peer);
    for (const Bytes& frame : frames) {
      ASSERT_EQ((*peer)->sendPacket(frame).status, SendOutcome::Status::sent);
    }
  }
  std::shared_ptr<GooseReceiver> makeReceiver() {
    return makeGooseReceiver(pool->executor(), GetParam());
  }

  void SetUp() override {
    ProcessBusTest::SetUp();
    pool.emplace(2);  // Its threads are born into the test's network.
  }

  std::optional<asio::thread_pool> pool;
};

TEST_P(GooseReceiverTest, GooseArrivesDecodedAndNothingElseDoes) {
  const auto receiver = makeReceiver();
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
  const auto messages = await(take(*stream, 2));
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].sqNum, 1U);
  EXPECT_EQ(messages[0].vlanId, std::nullopt);
  EXPECT_EQ(messages[0].srcMac, "02:00:00:00:00:09");
  EXPECT_EQ(messages[1].sqNum, 2U);
  EXPECT_EQ(messages[1].vlanId, 100);
  for (const auto& message : messages) {
    // The clock's nanoseconds are cut to microseconds on the way.
    EXPECT_GE(message.receivedAt + 2us, before);
    EXPECT_LE(message.receivedAt, sent + 10ms) << "the kernel's time, not the reader's";
  }
  await(receiver->stop());
}

// Takes whatever the kernel lets through.
struct AnyFrame {
  using Record = Bytes;
  static constexpr const char* kEtherTypeHex = "0x88b8";
  static bool decode(ByteView frame, TimePoint, Bytes& taken) {
    taken.assign(frame.begin(), frame.end());
    return true;
  }
};

TEST_P(GooseReceiverTest, TheKernelKeepsOtherFramesBack) {
  const auto receiver = std::make_shared<CaptureReceiver<AnyFrame>>(pool->executor(), GetParam(),
                                                                    GooseReceiver::kUnbounded);
  auto stream = await(receiver->start(kBus, {}));
  ASSERT_TRUE(stream);
  const Bytes plain = gooseFrame(1);
  const Bytes tagged = gooseFrame(2, 100);
  Bytes sv = plain;
  sv[13] = 0xBA;
  Bytes taggedSv = tagged;
  taggedSv[17] = 0xBA;
  send({sv, taggedSv, plain, tagged});
  std::vector<Bytes> taken;
  MessageStream<Bytes>::Batch batch;
  while (taken.size() < 2 && await(stream->next(batch))) {
    taken.insert(taken.end(), batch.records().begin(), batch.records().end());
  }
  EXPECT_EQ(taken, (std::vector{plain, tagged}));
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, StopOnASilentLinkEndsTheStreamAtOnce) {
  const auto receiver = makeReceiver();
  await(receiver->stop());  // Never started: returns at once.
  auto stream = await(receiver->start(kBus, {}));
  ASSERT_TRUE(stream);
  std::this_thread::sleep_for(20ms);  // Let the thread sit in its wait.
  const auto begin = std::chrono::steady_clock::now();
  await(receiver->stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
  EXPECT_TRUE(await(take(*stream, 1)).empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, ANewStartReplacesTheOldCapture) {
  const auto receiver = makeReceiver();
  auto first = await(receiver->start(kBus, {}));
  auto second = await(receiver->start(kBus, {}));
  ASSERT_TRUE(first && second);
  send({gooseFrame(5)});
  EXPECT_EQ(await(take(*second, 1)).size(), 1U) << "the end of the first must not stop the second";
  EXPECT_TRUE(await(take(*first, 1)).empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, DroppingTheConsumerEndsTheCapture) {
  const auto receiver = makeReceiver();
  {
    auto stream = await(receiver->start(kBus, {}));
    ASSERT_TRUE(stream);
    EXPECT_EQ(openPacketSockets(), 1);
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (openPacketSockets() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(openPacketSockets(), 0);
}

TEST_P(GooseReceiverTest, ABurstAtFullRateIsTakenWhole) {
  constexpr std::uint32_t kFrames = 1000;
  const auto receiver = makeReceiver();
  auto stream = await(receiver->start(kBus, {}));
  ASSERT_TRUE(stream);
  std::vector<Bytes> frames;
  for (std::uint32_t i = 0; i < kFrames; ++i) frames.push_back(gooseFrame(i));
  send(frames);
  const auto messages = await(take(*stream, kFrames));
  ASSERT_EQ(messages.size(), kFrames);
  for (std::uint32_t i = 0; i < kFrames; ++i) ASSERT_EQ(messages[i].sqNum, i);
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, ADeletedInterfaceIsReportedAndALinkDownIsNot) {
  const auto receiver = makeReceiver();
  std::promise<std::string> death;
  auto stream =
      await(receiver->start(kBus, {[&death](std::string reason) { death.set_value(reason); }, {}}));
  ASSERT_TRUE(stream);
  NetworkNamespace::setUp(kBus, false);
  NetworkNamespace::setUp(kBus, true);
  send({gooseFrame(1)});
  EXPECT_EQ(await(take(*stream, 1)).size(), 1U) << "the capture resumes by itself";

  auto reason = death.get_future();
  EXPECT_EQ(reason.wait_for(0s), std::future_status::timeout);
  NetworkNamespace::removeLink(kIed);
  ASSERT_EQ(reason.wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(reason.get().empty());
  await(receiver->stop());
}

TEST_P(GooseReceiverTest, AnInterfaceThatCannotBeOpenedLeavesNothing) {
  const auto receiver = makeReceiver();
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
  asio::thread_pool weak{1};
  const auto receiver = makeGooseReceiver(weak.executor(), GetParam());
  auto result = asio::co_spawn(weak, receiver->start(kBus, {}), asio::use_future);
  ASSERT_EQ(result.wait_for(kPatience), std::future_status::ready);
  const auto started = result.get();
  ASSERT_FALSE(started);
  EXPECT_EQ(started.error().which(), GooseError::Case::permissionDenied);
  const auto sending = openSendPcap(kBus);
  ASSERT_FALSE(sending);
  EXPECT_EQ(sending.error().which(), GooseError::Case::pcapOpenFailed);
}

INSTANTIATE_TEST_SUITE_P(Modes, GooseReceiverTest,
                         ::testing::Values(CaptureMode::standard, CaptureMode::lowLatency),
                         [](const auto& mode) {
                           return mode.param == CaptureMode::standard ? "Standard" : "LowLatency";
                         });

}  // namespace
}  // namespace tarnlink::test
