// How punctual the publisher's retransmissions are, beside a bare clock_nanosleep loop that sends
// the same frame with the same call under the same scheduling policy.
//
// Both send over a veth pair in a private network namespace, in alternating rounds; the kernel
// stamps each frame as it arrives on the peer end. A frame's error is that stamp, minus the clock
// reading just before the state-change frame was handed to libpcap, minus the frame's place in the
// schedule: it holds the wake-up and the way through the kernel, for both alike. (Reckoning from
// the state-change frame's own stamp would flatter whoever is slow to send it.)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "stack/goose_publisher.h"
#include "stack/punctual_thread.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/network_namespace.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int kDefaultRounds = 100;  // About one second each.
// The fast schedule's head: a full one takes four seconds and mostly waits.
constexpr std::size_t kRetransmissions = 8;
constexpr milliseconds kSettling{10};
constexpr const char* kBus = "bus0";
constexpr const char* kPeer = "ied0";

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
  const char* name;
  std::shared_ptr<NotingHandles> handles = std::make_shared<NotingHandles>();
  std::vector<double> errors{};

  double quantile(double share) const {
    const auto rank = std::ceil(share * static_cast<double>(errors.size()));
    return errors.at(static_cast<std::size_t>(std::max(rank, 1.0)) - 1);
  }
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

void report(Series& publisher, Series& bare) {
  std::printf("%-22s %10s %10s %10s   frames\n", "error in microseconds", "p50", "p99", "max");
  for (Series* series : {&bare, &publisher}) {
    std::sort(series->errors.begin(), series->errors.end());
    std::printf("%-22s %10.1f %10.1f %10.1f   %zu\n", series->name, series->quantile(0.5),
                series->quantile(0.99), series->errors.back(), series->errors.size());
  }
  std::printf(
      "publisher / bare       %10.2f %10.2f %10.2f\n", publisher.quantile(0.5) / bare.quantile(0.5),
      publisher.quantile(0.99) / bare.quantile(0.99), publisher.errors.back() / bare.errors.back());
}

void run(int rounds) {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kPeer);
  test::FrameRecorder recorder(kPeer, "ether proto 0x88b8");
  const auto config = publication();
  const auto offsets = offsetsOf(config.retransmissionProfile);

  Series published{"publisher"};
  Series bare{"bare clock_nanosleep"};
  PunctualThread thread;
  const auto publisher = std::make_shared<GoosePublisher>(
      thread.executor(), [](std::string_view) {}, published.handles);
  const auto handle = bare.handles->openSendHandle(kBus).value().release();
  const std::unique_ptr<SendHandle> owner(handle);
  std::printf("%s scheduling, %d rounds of %zu retransmissions each\n",
              thread.isRealTime() ? "real-time" : "ordinary", rounds, offsets.size() - 1);

  Bytes frame;
  const auto publish = [&] {
    published.handles->firstHandedOver = {};
    test::runAwaitable(publisher->publishStateChange(config)).value();
    // Like the bare loop, it has the machine to itself until the last frame has left.
    std::this_thread::sleep_for(offsets.back() + kSettling);
    collect(published, recorder.frames(offsets.size()), offsets);
    frame = recorder.frames(0).back().octets;
    recorder.clear();
  };
  const auto sendBare = [&] {
    bare.handles->firstHandedOver = {};
    std::thread([&] {
      askForPunctuality();
      bareLoop(*handle, frame, offsets);
    }).join();
    collect(bare, recorder.frames(offsets.size()), offsets);
    recorder.clear();
  };
  publish();  // Brings the frame, opens the handles, warms the caches; does not count.
  sendBare();
  published.errors.clear();
  bare.errors.clear();
  for (int round = 0; round < rounds; ++round) {
    // Neither always runs in the other's wake.
    round % 2 == 0 ? publish() : sendBare();
    round % 2 == 0 ? sendBare() : publish();
  }
  test::runAwaitable(publisher->stop());
  report(published, bare);
}

}  // namespace
}  // namespace tarnlink

int main(int argc, char** argv) {
  try {
    tarnlink::run(argc > 1 ? std::stoi(argv[1]) : tarnlink::kDefaultRounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "publisher_bench: %s\nusage: publisher_bench [ROUNDS]\n", error.what());
    return 1;
  }
}
