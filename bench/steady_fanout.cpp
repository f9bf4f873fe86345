#include "bench/steady_fanout.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/bridge.h"
#include "bench/burst_server.h"
#include "bench/process_status.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/wire.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

using std::chrono::steady_clock;

constexpr std::size_t kClients = 10;
constexpr int kRate = 20'000;           // Messages a second.
constexpr unsigned kMessages = 40'000;  // Of one run.
constexpr std::chrono::nanoseconds kSpacing{1'000'000'000 / kRate};
constexpr double kSeconds = kMessages / double{kRate};
constexpr std::uint16_t kPort = 9100;  // And the next one.

/// Per cent of one processor.
double share(std::chrono::nanoseconds cpu) {
  return 100 * std::chrono::duration<double>(cpu).count() / kSeconds;
}

double millisecondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(steady_clock::now() - start).count();
}

struct Series {
  Figures cpu;      // Of the whole process, as its share of one processor.
  Figures sleeps;   // A second, of all threads.
  Figures wakeUps;  // A second, of the thread that serves the clients.
  Figures backlog;  // Milliseconds from the last message's start to its arrival everywhere.
};

class SteadyBridge {
 public:
  SteadyBridge() {
    if (::clock_getcpuclockid(bridge_.pid(), &clock_) != 0) throw std::runtime_error("no clock");
  }

  void run(WireSender& wire, Series& series) {
    const Bytes frame = eightValueFrame();
    const auto cpu = timeOf(clock_);
    const auto sleeps = sleepsOf(bridge_.pid());
    const auto wakeUps = sleepsOf(servingThread_);
    paced(kMessages, kSpacing, [&](std::size_t) { wire.send(frame); });
    const auto sent = steady_clock::now();
    clients_.waitFor(sent_ += kMessages);
    series.backlog.push_back(millisecondsSince(sent));
    series.cpu.push_back(share(timeOf(clock_) - cpu));
    series.sleeps.push_back((sleepsOf(bridge_.pid()) - sleeps) / kSeconds);
    series.wakeUps.push_back((sleepsOf(servingThread_) - wakeUps) / kSeconds);
  }

 private:
  Bridge bridge_{kBus, kPort};
  Readers clients_ = bridge_.subscribe(kClients);
  // The process's first one.
  const std::string servingThread_ =
      "/proc/" + std::to_string(bridge_.pid()) + "/task/" + std::to_string(bridge_.pid());
  clockid_t clock_{};
  std::uint64_t sent_ = 0;
};

/// The bare epoll server, given encoded events of the same size in batches. Beside it as many
/// frames are sent over the same wire, which no capture takes: the machine is as busy as it is
/// under the bridge.
class SteadyBare {
 public:
  /// With as many wake-ups a second as the bridge had. Gives its thread's share of a processor.
  double run(WireSender& wire, double wakeUps) {
    constexpr double kMost = kBurst;
    const auto batch =
        static_cast<std::size_t>(std::clamp(std::round(kRate / wakeUps), 1.0, kMost));
    Bytes frame = eightValueFrame();
    frame[13] = 0xB5;  // EtherType 0x88B5, for experiments (IEEE 802).
    const auto cpu = server_->cpuTime();
    paced(kMessages, kSpacing, [&](std::size_t message) {
      wire.send(frame);
      if ((message + 1) % batch == 0) server_->feed(batch);
    });
    if (const auto rest = kMessages % batch; rest > 0) server_->feed(rest);
    clients_.waitFor(sent_ += kMessages);
    return share(server_->cpuTime() - cpu);
  }

 private:
  const Frames frames_ = Frames(kBurst, TextFrame::copyOf(std::string(kSampleEventSize, 'x')));
  std::unique_ptr<BurstServer> server_ = makeEpollServer(kPort + 1, frames_);
  Readers clients_{kClients, kPort + 1};
  std::uint64_t sent_ = 0;
};

}  // namespace

void measureSteadyFanOut() {
  test::NetworkNamespace::addVethPair(kBus, kIed);
  WireSender wire(kIed);
  SteadyBridge bridge;
  SteadyBare bare;
  Series ours;
  bridge.run(wire, ours);  // Warms up, as does the next one; does not count.
  bare.run(wire, ours.wakeUps.front());
  ours = {};
  Figures limit;
  for (int pair = 0; pair < kPairs; ++pair) {
    bridge.run(wire, ours);
    limit.push_back(bare.run(wire, ours.wakeUps.back()));
  }
  const std::string what = "20,000 messages/s off the wire to 10 clients, ";
  compare(what + "CPU", "%.1f %%", ours.cpu, "bare epoll at the same batching", limit, atMost(1.4));
  report(what + "context switches", "%.0f/s", median(ours.sleeps), {},
         text("of them the thread that sends %.0f/s", median(ours.wakeUps)));
  report(what + "the last one's way", "%.1f ms", median(ours.backlog), atMost(50));
}

}  // namespace tarnlink::bench
