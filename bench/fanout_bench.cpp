// What one delivery of an event to a client costs the server's thread, beside a bare epoll server
// (the limit) and a plain Beast server (what most people would write); then a steady flow off the
// wire through the real tarnlinkd.
//
// Fed alike: the main thread hands a server bursts of 64 frames with 700 octets of text each,
// encoded once beforehand; a burst goes to every client, and two bursts at most are on their way
// (handed over, but not yet read by the slowest client). The servers take turns, each with its own
// connections, in a network namespace of the bench's own. CPU is that of the server's thread alone;
// on loopback it holds the kernel's way to the peer's receive queue.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench/burst_server.h"
#include "bench/readers.h"
#include "bench/report.h"
#include "bench/steady_fanout.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

constexpr std::size_t kTextSize = 700;  // Octets.
constexpr std::size_t kBurstsUnderWay = 2;
constexpr std::chrono::milliseconds kRun{300};  // One server's part of a round.
constexpr std::uint16_t kFirstPort = 9000;

using MakeServer = std::unique_ptr<BurstServer> (*)(std::uint16_t, const Frames&);

/// A server with its clients and what was measured.
class Contender {
 public:
  Contender(MakeServer make, std::uint16_t port, const Frames& frames, std::size_t clients)
      : server_(make(port, frames)), clients_(clients, port), count_(clients) {}

  /// Feeds for a while and waits until all is read.
  void run() {
    const auto fedBefore = fed_;
    const auto cpuBefore = server_->cpuTime();
    const auto start = steady_clock::now();
    while (steady_clock::now() < start + kRun) {
      server_->feed(kBurst);
      fed_ += kBurst;
      if (fed_ >= kBurstsUnderWay * kBurst) {
        clients_.waitFor(fed_ - (kBurstsUnderWay - 1) * kBurst, fed_);
      }
    }
    clients_.waitFor(fed_);
    const duration<double> seconds = steady_clock::now() - start;
    const duration<double, std::micro> cpu = server_->cpuTime() - cpuBefore;
    const auto deliveries = static_cast<double>((fed_ - fedBefore) * count_);
    cpuPerDelivery.push_back(cpu.count() / deliveries);
    deliveriesPerSecond.push_back(deliveries / seconds.count());
  }

  Figures cpuPerDelivery;  // Microseconds.
  Figures deliveriesPerSecond;

 private:
  std::unique_ptr<BurstServer> server_;
  Readers clients_;
  std::size_t count_;
  std::uint64_t fed_ = 0;
};

struct Case {
  std::size_t clients;
  double mostToBare;  ///< Our CPU per delivery divided by the bare server's.
  std::unique_ptr<Contender> ours{}, bare{}, plain{};

  void print() const {
    constexpr Target kToBeast = atMost(0.17);
    const auto who =
        "fan-out to " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
    const auto what = who + ", CPU per delivery";
    compare(what, "%.3f us", ours->cpuPerDelivery, "bare epoll", bare->cpuPerDelivery,
            atMost(mostToBare));
    compare(what, "%.3f us", ours->cpuPerDelivery, "plain Beast", plain->cpuPerDelivery, kToBeast);
    compare(who + ", deliveries", "%.0f/s", ours->deliveriesPerSecond, "bare epoll",
            bare->deliveriesPerSecond);
  }
};

Frames makeFrames() {
  Frames frames;
  for (std::size_t i = 0; i < kBurst; ++i) {
    frames.push_back(TextFrame::copyOf(std::string(kTextSize, static_cast<char>('0' + i))));
  }
  return frames;
}

void measureFanOut() {
  const Frames frames = makeFrames();
  Case cases[] = {{1, 1.33}, {10, 1.82}, {100, 2}};
  std::vector<Contender*> all;
  std::uint16_t port = kFirstPort;
  for (auto& [clients, most, ours, bare, plain] : cases) {
    const auto make = [&](std::unique_ptr<Contender>& contender, MakeServer server) {
      contender = std::make_unique<Contender>(server, port++, frames, clients);
      all.push_back(contender.get());
    };
    make(ours, makeTransportServer);
    make(bare, makeEpollServer);
    make(plain, makePlainBeastServer);
  }
  for (auto* contender : all) {
    contender->run();  // Grows windows and buffers; does not count.
    contender->cpuPerDelivery.clear();
    contender->deliveriesPerSecond.clear();
  }
  for (int round = 0; round < kPairs; ++round) {
    for (auto* contender : all) contender->run();
    // Nobody always runs in the same one's wake.
    std::rotate(all.begin(), all.begin() + 1, all.end());
  }
  for (const auto& each : cases) each.print();
  compare("fan-out, CPU per delivery to 100", "%.3f us", cases[2].ours->cpuPerDelivery, "to 10",
          cases[1].ours->cpuPerDelivery, atMost(1));
}

void run() {
  // Both ends of all connections are in this process.
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
  test::NetworkNamespace::enter();
  measureFanOut();
  measureSteadyFanOut();
}

}  // namespace
}  // namespace tarnlink::bench

int main() {
  try {
    tarnlink::bench::run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fanout_bench: %s\n", error.what());
    return 1;
  }
}
