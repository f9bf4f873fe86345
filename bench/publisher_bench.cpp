// How well the publisher keeps the times of its retransmissions, beside a bare clock_nanosleep loop
// that sends the same frame with the same call under the same scheduling policy.
//
// Both send over a veth pair in a private network namespace, in alternating rounds; the kernel
// stamps each frame as it arrives on the peer end. A frame's error is that stamp, minus the clock
// reading just before the state-change frame was handed to libpcap, minus the frame's place in the
// schedule: it holds the wake-up and the way through the kernel, for both alike. (Reckoning from
// the state-change frame's own stamp would flatter whoever is slow to send it.)
//
// Measured twice: with the machine at rest, and beside a bridge that floods a client with the
// frames of another wire.
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bridge.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/stopwatch.h"
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

/// Handles of the system that note when the state-change frame is handed over.
class NotingHandles final : public SendHandleSource {
 public:
  GooseResult<std::unique_ptr<SendHandle>> openSendHandle(const std::string& interface) override {
    auto handle = system_->openSendHandle(interface);
    if (!handle) return handle.error();
    return std::make_unique<Handle>(std::move(*handle), handedOver);
  }
  std::optional<MacAddress> macAddressBytes(const std::string& interface) override {
    return system_->macAddressBytes(interface);
  }

  /// Set to zero before a round; read after it, when the sending thread waits.
  nanoseconds handedOver{};

 private:
  struct Handle final : SendHandle {
    Handle(std::unique_ptr<SendHandle> handle, nanoseconds& time)
        : system(std::move(handle)), handedOver(time) {}
    SendOutcome sendPacket(ByteView frame) override {
      if (handedOver == nanoseconds::zero()) handedOver = wallClock();
      return system->sendPacket(frame);
    }
    SendOutcome inject(ByteView frame) override { return system->inject(frame); }
    bool isOn(const std::string& interface) const override { return system->isOn(interface); }
    void setPriority(std::uint8_t priority) override { system->setPriority(priority); }
    std::unique_ptr<SendHandle> system;
    nanoseconds& handedOver;
  };
  std::shared_ptr<SendHandleSource> system_ = systemSendHandles();
};

GoosePublishConfig publication() {
  GoosePublishConfig config{};
  config.appId = 0x3001;
  config.goCBRef = "IED1LD0/LLN0$GO$gcb1";
  config.dataSetRef = "IED1LD0/LLN0$ds1";
  config.dstMac = {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  config.retransmissionProfile = RetransmissionProfile::fast();
  config.retransmissionProfile.intervals.resize(kRetransmissions);
  config.retransmissionProfile.heartbeatInterval = 0;
  config.values.assign(16, GooseDataValue::floatingPoint(50.0F));
  config.interface = kBus;
  config.timeAllowedToLive = 2000;
  return config;
}

std::vector<nanoseconds> offsetsOf(const RetransmissionProfile& profile) {
  std::vector<nanoseconds> offsets{nanoseconds::zero()};
  for (const int interval : profile.intervals) {
    offsets.push_back(offsets.back() + milliseconds(interval));
  }
  return offsets;
}

/// Sends the frame at these times by the clock; gives when it handed over the first one.
nanoseconds bareLoop(SendHandle& handle, ByteView frame, const std::vector<nanoseconds>& offsets) {
  const nanoseconds handedOver = wallClock();
  const nanoseconds start = timeOf(CLOCK_MONOTONIC);
  for (const nanoseconds offset : offsets) {
    const auto deadline = (start + offset).count();
    const timespec until{deadline / 1'000'000'000, deadline % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    handle.sendPacket(frame);
  }
  return handedOver;
}

/// Two senders, interleaved on one wire.
class Contest {
 public:
  Contest()
      : publisher_(std::make_shared<GoosePublisher>(
            thread_.executor(), [](std::string_view) {}, handles_)),
        bareHandle_(systemSendHandles()->openSendHandle(kBus).value()) {
    publish();  // Brings the frame, opens the handles, warms the caches; does not count.
    sendBare();
  }
  ~Contest() { test::runAwaitable(publisher_->stop()); }

  void run(const std::string& circumstances) {
    published_.clear();
    bare_.clear();
    for (int round = 0; round < kRounds; ++round) {
      // Neither always runs in the other's wake.
      round % 2 == 0 ? publish() : sendBare();
      round % 2 == 0 ? sendBare() : publish();
    }
    const auto print = [&](const char* what, double share, Target target) {
      compare("error of a retransmission " + circumstances + what, "%.1f us",
              {quantile(published_, share)}, "clock_nanosleep", {quantile(bare_, share)}, target);
    };
    print(", p50", 0.5, atMost(1.3));
    print(", p99", 0.99, atMost(1));
    if (!thread_.isRealTime()) std::fputs("no real-time scheduling here\n", stderr);
  }

 private:
  void publish() {
    handles_->handedOver = {};
    test::runAwaitable(publisher_->publishStateChange(config_)).value();
    // Like the bare loop, it has the machine to itself until the last frame has left.
    std::this_thread::sleep_for(offsets_.back() + kSettling);
    collect(published_, handles_->handedOver);
  }
  void sendBare() {
    nanoseconds handedOver{};
    std::thread([&] {
      askForRealTime();
      handedOver = bareLoop(*bareHandle_, frame_, offsets_);
    }).join();
    collect(bare_, handedOver);
  }
  void collect(Figures& errors, nanoseconds handedOver) {
    const auto& frames = recorder_.frames(offsets_.size());
    if (frames.size() != offsets_.size()) throw std::runtime_error("frames were lost or added");
    for (std::size_t i = 1; i < frames.size(); ++i) {
      const auto error = frames[i].time - handedOver - offsets_[i];
      errors.push_back(static_cast<double>(error.count()) / 1e3);
    }
    frame_ = frames.back().octets;
    recorder_.clear();
  }

  test::FrameRecorder recorder_{kIed, "ether proto 0x88b8"};
  GoosePublishConfig config_ = publication();
  std::vector<nanoseconds> offsets_ = offsetsOf(config_.retransmissionProfile);
  Figures published_;  // Errors in microseconds.
  Figures bare_;
  RealTimeThread thread_;
  std::shared_ptr<NotingHandles> handles_ = std::make_shared<NotingHandles>();
  std::shared_ptr<GoosePublisher> publisher_;
  std::unique_ptr<SendHandle> bareHandle_;
  Bytes frame_;
};

}  // namespace

void run() {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kIed);
  test::NetworkNamespace::addVethPair(kLoadedBus, kLoadedIed);
  Contest contest;
  contest.run("at rest");

  const Bridge bridge(kLoadedBus, kPort);
  Readers client = bridge.subscribe(1);
  const std::jthread load([](const std::stop_token& stop) {
    WireSender wire(kLoadedIed);
    const Bytes frame = eightValueFrame();
    while (!stop.stop_requested()) {
      paced(100, kLoadSpacing, [&](std::size_t) { wire.send(frame, kLoad); });
    }
  });
  const auto begin = timeOf(CLOCK_MONOTONIC);
  contest.run("under load");
  const std::chrono::duration<double> time = timeOf(CLOCK_MONOTONIC) - begin;
  report("the load: messages delivered", "%.0f/s",
         static_cast<double>(client.fewest()) / time.count());
}

}  // namespace tarnlink::bench
