// What one delivery of an event to a client costs the server's thread, beside a bare loop
// (the limit) and a plain Beast server (what most people would write); then a steady flow off the
// wire through the real tarnlinkd.
//
// Fed alike: the main thread hands a server bursts of 64 frames with 700 octets of text each,
// encoded once beforehand; a burst goes to every client, and two bursts at most are on their way
// (handed over, but not yet read by the slowest client). The servers' runs are interleaved, each
// with its own connections, in a network namespace of the bench's own. CPU is that of the server's
// thread alone; on loopback it holds the kernel's way to the peer's receive queue.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bridge.h"
#include "bench/burst_server.h"
#include "bench/process_status.h"
#include "bench/readers.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/wire.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

constexpr std::size_t kTextSize = 700;  // Octets.
constexpr std::size_t kBurstsUnderWay = 2;
constexpr std::chrono::milliseconds kRun{300};  // One server's part of a round.

/// A server with its clients and what was measured.
class Contender {
 public:
  Contender(MakeServer& make, std::uint16_t port, const Frames& frames, std::size_t clients)
      : server_(make(port, frames, clients)), clients_(clients, port), count_(clients) {}

  /// Feeds for a while and waits until all is read.
  void run() {
    const auto fedBefore = fed_;
    const auto cpuBefore = server_->cpuTime();
    const auto start = steady_clock::now();
    while (steady_clock::now() < start + kRun) {
      server_->feed(kBurst);
      fed_ += kBurst;
      if (fed_ >= kBurstsUnderWay * kBurst) {
        clients_.waitFor(fed_ - (kBurstsUnderWay - 1) * kBurst);
      }
    }
    clients_.waitFor(fed_);
    const duration<double, std::micro> cpu = server_->cpuTime() - cpuBefore;
    cpuPerDelivery.push_back(cpu.count() / static_cast<double>((fed_ - fedBefore) * count_));
  }

  Figures cpuPerDelivery;  // Microseconds.

 private:
  std::unique_ptr<BurstServer> server_;
  Readers clients_;
  std::size_t count_;
  std::uint64_t fed_ = 0;
};

void measureFanOut() {
  Frames frames;
  for (std::size_t i = 0; i < kBurst; ++i) {
    frames.push_back(TextFrame::copyOf(std::string(kTextSize, static_cast<char>('0' + i))));
  }
  struct Case {
    std::size_t clients;
    double mostToBare;  // Our CPU per delivery divided by the bare server's.
    std::vector<std::shared_ptr<Contender>> contenders;  // Ours, bare, plain.
  };
  Case cases[] = {{1, 1.33, {}}, {10, 1.82, {}}, {100, 2, {}}};
  std::vector<std::shared_ptr<Contender>> all;
  std::uint16_t port = 9000;
  for (auto& [clients, most, contenders] : cases) {
    for (MakeServer* make : {makeTransportServer, makeBareServer, makePlainBeastServer}) {
      contenders.push_back(std::make_shared<Contender>(*make, port++, frames, clients));
      all.push_back(contenders.back());
    }
  }
  for (const auto& contender : all) {
    contender->run();  // Grows windows and buffers; does not count.
    contender->cpuPerDelivery.clear();
  }
  for (int round = 0; round < kPairs; ++round) {
    for (const auto& contender : all) contender->run();
    // Nobody always runs in the same one's wake.
    std::rotate(all.begin(), all.begin() + 1, all.end());
  }
  const auto figures = [&](int each, int who) -> const Figures& {
    return cases[each].contenders[who]->cpuPerDelivery;
  };
  for (int each = 0; each < 3; ++each) {
    const auto what = "fan-out, CPU per delivery, clients: " + std::to_string(cases[each].clients);
    compare(what, "%.3f us", figures(each, 0), "bare loop", figures(each, 1),
            atMost(cases[each].mostToBare));
    compare(what, "%.3f us", figures(each, 0), "plain Beast", figures(each, 2), atMost(0.17));
  }
  compare("fan-out, CPU per delivery to 100", "%.3f us", figures(2, 0), "to 10", figures(1, 0),
          atMost(1));
}

// ---- A steady flow through the whole bridge ----

constexpr std::size_t kClients = 10;
constexpr int kRate = 20'000;           // Messages a second.
constexpr unsigned kMessages = 40'000;  // Of one run.
constexpr std::chrono::nanoseconds kSpacing{1'000'000'000 / kRate};
constexpr std::size_t kBatch = kRate / 1'000;  // The bridge wakes once a millisecond.
constexpr std::uint16_t kPort = 9100;          // And the next one.

/// Per cent of one processor, of a run.
double share(std::chrono::nanoseconds cpu) {
  return 100 * duration<double>(cpu) / (kMessages * kSpacing);
}

void measureSteadyFanOut() {
  test::NetworkNamespace::addVethPair(kBus, kIed);
  WireSender wire(kIed);
  const Bridge bridge(kBus, kPort);
  Readers clients = bridge.subscribe(kClients);
  clockid_t clock{};
  if (::clock_getcpuclockid(bridge.pid(), &clock) != 0) throw std::runtime_error("no clock");
  // The bare server gives encoded events of the same size to its clients. Beside it as many frames
  // are sent over the same wire, which no capture takes: the machine is as busy as it is under the
  // bridge.
  const Frames frames(kBurst, TextFrame::copyOf(std::string(kSampleEventSize, 'x')));
  const auto bare = makeBareServer(kPort + 1, frames, kClients);
  Readers bareClients(kClients, kPort + 1);
  const Bytes frame = eightValueFrame();
  Bytes untaken = frame;
  untaken[13] = 0xB5;  // EtherType 0x88B5, for experiments (IEEE 802).

  Figures ours;
  Figures limit;
  Figures sleeps;   // A second, of all threads.
  Figures backlog;  // Milliseconds from the last message's start to its arrival everywhere.
  for (unsigned round = 0; round <= kPairs; ++round) {
    if (round == 1) ours = limit = sleeps = backlog = {};  // The first one has warmed up.
    const auto cpu = timeOf(clock);
    const auto sleepsBefore = sleepsOf(bridge.pid());
    paced(kMessages, kSpacing, [&](std::size_t) { wire.send(frame); });
    const auto sent = steady_clock::now();
    clients.waitFor((round + 1) * kMessages);
    backlog.push_back(duration<double, std::milli>(steady_clock::now() - sent).count());
    ours.push_back(share(timeOf(clock) - cpu));
    sleeps.push_back((sleepsOf(bridge.pid()) - sleepsBefore) * kRate / kMessages);

    const auto bareCpu = bare->cpuTime();
    paced(kMessages, kSpacing, [&](std::size_t message) {
      wire.send(untaken);
      if ((message + 1) % kBatch == 0) bare->feed(kBatch);
    });
    bareClients.waitFor((round + 1) * kMessages);
    limit.push_back(share(bare->cpuTime() - bareCpu));
  }
  const std::string what = "20,000 messages/s through all, ";
  compare(what + "CPU", "%.1f %%", ours, "bare loop, woken each ms", limit, atMost(1.4));
  report(what + "context switches", "%.0f/s", median(sleeps));
  report(what + "the last one's way", "%.1f ms", median(backlog), atMost(50));
}

}  // namespace

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

}  // namespace tarnlink::bench
