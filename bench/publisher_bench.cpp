// How punctual the publisher's retransmissions are, beside a bare clock_nanosleep loop that sends
// the same frame with the same call under the same scheduling policy.
//
// Both send over a veth pair in a private network namespace, in alternating rounds; the kernel
// stamps each frame as it arrives on the peer end. A frame's error is that stamp, minus the clock
// reading just before the state-change frame was handed to libpcap, minus the frame's place in the
// schedule: it holds the wake-up and the way through the kernel, for both alike. (Reckoning from
// the state-change frame's own stamp would flatter whoever is slow to send it.)
//
// Measured twice: with the machine at rest, and beside a bridge that floods a client with the
// frames of another wire.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bridge.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/wire.h"
#include "goosestack/real_time_thread.h"
#include "stack/goose_publisher.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/network_namespace.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int kRounds = 25;  // About one second each, at rest and under load.
// The fast schedule's head: a full one takes four seconds and mostly waits.
constexpr std::size_t kRetransmissions = 8;
constexpr milliseconds kSettling{10};

constexpr const char* kLoadedBus = "bus1";
constexpr const char* kLoadedIed = "ied1";
constexpr std::uint16_t kPort = 8765;
// Frames, and the time between two bursts of them: 50,000 a second.
constexpr unsigned kLoad = 25;
constexpr std::chrono::microseconds kLoadSpacing{500};

nanoseconds wallClock() {
  return std::chrono::system_clock::now().time_since_epoch();
}

/// Passes frames on and notes when the latest one was handed over with nothing before it.
class NotingHandle final : public SendHandle {
 public:
  NotingHandle(std::unique_ptr<SendHandle> handle, nanoseconds& firstHandedOver)
      : handle_(std::move(handle)), firstHandedOver_(firstHandedOver) {}
  SendOutcome sendPacket(ByteView frame) override {
    if (firstHandedOver_ == nanoseconds::zero()) firstHandedOver_ = wallClock();
    return handle_->sendPacket(frame);
  }
  SendOutcome inject(ByteView frame) override { return handle_->inject(frame); }
  bool isOn(const std::string& interface) const override { return handle_->isOn(interface); }
  void setPriority(std::uint8_t priority) override { handle_->setPriority(priority); }

 private:
  std::unique_ptr<SendHandle> handle_;
  nanoseconds& firstHandedOver_;
};

class NotingHandles final : public SendHandleSource {
 public:
  GooseResult<std::unique_ptr<SendHandle>> openSendHandle(const std::string& interface) override {
    auto handle = system_->openSendHandle(interface);
    if (!handle) return handle.error();
    return std::make_unique<NotingHandle>(std::move(*handle), firstHandedOver);
  }
  std::optional<MacAddress> macAddressBytes(const std::string& interface) override {
    return system_->macAddressBytes(interface);
  }

  /// Set to zero before a round; read after it, when the sending thread waits.
  nanoseconds firstHandedOver{};

 private:
  std::shared_ptr<SendHandleSource> system_ = systemSendHandles();
};

GoosePublishConfig publication() {
  RetransmissionProfile profile = RetransmissionProfile::fast();
  profile.intervals.resize(kRetransmissions);
  profile.heartbeatInterval = 0;
  std::vector<GooseDataValue> values(16, GooseDataValue::floatingPoint(50.0F));
  return {0x3001,
          "IED1LD0/LLN0$GO$gcb1",
          "IED1LD0/LLN0$ds1",
          "gcb1",
          1,
          0,
          4,
          false,
          false,
          {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01},
          std::nullopt,
          profile,
          values,
          kBus,
          2000,
          false,
          false,
          0,
          0,
          false,
          false};
}

std::vector<nanoseconds> offsetsOf(const RetransmissionProfile& profile) {
  std::vector<nanoseconds> offsets{nanoseconds::zero()};
  for (const int interval : profile.intervals) {
    offsets.push_back(offsets.back() + milliseconds(interval));
  }
  return offsets;
}

/// One sender under test: its errors in microseconds.
struct Series {
  std::shared_ptr<NotingHandles> handles = std::make_shared<NotingHandles>();
  Figures errors{};
};

void bareLoop(SendHandle& handle, ByteView frame, const std::vector<nanoseconds>& offsets) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  handle.sendPacket(frame);
  const nanoseconds start = std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    const auto deadline = (start + offsets[i]).count();
    const timespec until{deadline / 1'000'000'000, deadline % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    handle.sendPacket(frame);
  }
}

void collect(Series& series, const std::vector<test::RecordedFrame>& frames,
             const std::vector<nanoseconds>& offsets) {
  if (frames.size() != offsets.size()) throw std::runtime_error("frames were lost or added");
  for (std::size_t i = 1; i < frames.size(); ++i) {
    const auto error = frames[i].time - series.handles->firstHandedOver - offsets[i];
    series.errors.push_back(static_cast<double>(error.count()) / 1e3);
  }
}

/// Frames on a wire of their own, through a bridge, to a client that reads all of them.
class WireLoad {
 public:
  WireLoad() {
    thread_ = std::thread([this] {
      const Bytes frame = eightValueFrame();
      while (!isStopping_) {
        paced(100, kLoadSpacing, [&](std::size_t) { wire_.send(frame, kLoad); });
      }
    });
  }
  ~WireLoad() {
    isStopping_ = true;
    thread_.join();
  }
  WireLoad(const WireLoad&) = delete;
  WireLoad& operator=(const WireLoad&) = delete;

  std::uint64_t delivered() { return client_.fewest(); }

 private:
  WireSender wire_{kLoadedIed};
  Bridge bridge_{kLoadedBus, kPort};
  Readers client_ = bridge_.subscribe(1);
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

/// Two senders that take turns on one wire.
class Contest {
 public:
  Contest()
      : publisher_(std::make_shared<GoosePublisher>(
            thread_.executor(), [](std::string_view) {}, published_.handles)),
        handle_(bare_.handles->openSendHandle(kBus).value()) {
    publish();  // Brings the frame, opens the handles, warms the caches; does not count.
    sendBare();
  }
  ~Contest() { test::runAwaitable(publisher_->stop()); }
  Contest(const Contest&) = delete;
  Contest& operator=(const Contest&) = delete;

  void run(const std::string& circumstances) {
    published_.errors.clear();
    bare_.errors.clear();
    for (int round = 0; round < kRounds; ++round) {
      // Neither always runs in the other's wake.
      round % 2 == 0 ? publish() : sendBare();
      round % 2 == 0 ? sendBare() : publish();
    }
    const auto print = [&](const char* what, double share, Target target) {
      compare("retransmission's error " + circumstances + what, "%.1f us",
              {quantile(published_.errors, share)}, "clock_nanosleep",
              {quantile(bare_.errors, share)}, target);
    };
    print(", p50", 0.5, atMost(1.3));
    print(", p99", 0.99, atMost(1));
    if (!thread_.isRealTime()) std::fputs("no real-time scheduling here\n", stderr);
  }

 private:
  void publish() {
    published_.handles->firstHandedOver = {};
    test::runAwaitable(publisher_->publishStateChange(config_)).value();
    // Like the bare loop, it has the machine to itself until the last frame has left.
    std::this_thread::sleep_for(offsets_.back() + kSettling);
    collect(published_, recorder_.frames(offsets_.size()), offsets_);
    frame_ = recorder_.frames(0).back().octets;
    recorder_.clear();
  }
  void sendBare() {
    bare_.handles->firstHandedOver = {};
    std::thread([&] {
      askForRealTime();
      bareLoop(*handle_, frame_, offsets_);
    }).join();
    collect(bare_, recorder_.frames(offsets_.size()), offsets_);
    recorder_.clear();
  }

  test::FrameRecorder recorder_{kIed, "ether proto 0x88b8"};
  GoosePublishConfig config_ = publication();
  std::vector<nanoseconds> offsets_ = offsetsOf(config_.retransmissionProfile);
  Series published_;
  Series bare_;
  RealTimeThread thread_;
  std::shared_ptr<GoosePublisher> publisher_;
  std::unique_ptr<SendHandle> handle_;
  Bytes frame_;
};

void run() {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kIed);
  test::NetworkNamespace::addVethPair(kLoadedBus, kLoadedIed);
  Contest contest;
  contest.run("at rest");
  WireLoad load;
  const auto before = load.delivered();
  const auto begin = std::chrono::steady_clock::now();
  contest.run("under load");
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  report("the load: messages delivered", "%.0f/s",
         static_cast<double>(load.delivered() - before) / time.count());
}

}  // namespace
}  // namespace tarnlink::bench

int main() {
  try {
    tarnlink::bench::run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "publisher_bench: %s\n", error.what());
    return 1;
  }
}
