// What one delivery of an event to a client costs the server's thread, beside a bare epoll server
// (the limit) and a plain Beast server (what most people would write).
//
// Fed alike: the main thread hands a server bursts of 64 frames with 700 octets of text each,
// encoded once beforehand; a burst goes to every client, and two bursts at most are on their way
// (handed over, but not yet read by the slowest client). The clients, in a process of their own,
// read with a big buffer and count frames, so that a lost one shows. The three servers take turns,
// each with its own connections, in a network namespace of the bench's own. CPU is that of the
// server's thread alone; on loopback it holds the kernel's way to the peer's receive queue.
//
// Arguments are numbers of clients, instead of those that have targets.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench/burst_server.h"
#include "bench/reading_clients.h"
#include "bench/report.h"
#include "bench/steady_fanout.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

constexpr std::size_t kTextSize = 700;  // Octets.
constexpr std::size_t kBurstsUnderWay = 2;
constexpr std::chrono::milliseconds kRun{300};  // One server's part of a pair.
constexpr std::uint16_t kFirstPort = 9000;

Frames makeFrames() {
  Frames frames;
  for (std::size_t i = 0; i < kBurst; ++i) {
    std::string text = R"({"type":"event","seq":)" + std::to_string(i) + R"(,"text":")";
    text.resize(kTextSize - 2, 'x');
    frames.push_back(TextFrame::copyOf(text + "\"}"));
  }
  return frames;
}

/// A server with its clients and what was measured.
class Contender {
 public:
  Contender(const char* name, std::unique_ptr<BurstServer> server, std::uint16_t port,
            std::size_t clients)
      : name_(name), server_(std::move(server)), clients_(clients, port), count_(clients) {}

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
    clients_.waitFor(fed_, fed_);
    const duration<double> seconds = steady_clock::now() - start;
    const duration<double, std::micro> cpu = server_->cpuTime() - cpuBefore;
    const auto deliveries = static_cast<double>((fed_ - fedBefore) * count_);
    cpuPerDelivery.push_back(cpu.count() / deliveries);
    deliveriesPerSecond.push_back(deliveries / seconds.count());
  }

  void forget() {
    cpuPerDelivery.clear();
    deliveriesPerSecond.clear();
  }

  const char* name() const { return name_; }

  std::vector<double> cpuPerDelivery;  // Microseconds.
  std::vector<double> deliveriesPerSecond;

 private:
  const char* name_;
  std::unique_ptr<BurstServer> server_;
  ReadingClients clients_;
  std::size_t count_;
  std::uint64_t fed_ = 0;
};

struct Target {
  std::size_t clients;
  double toEpoll;  ///< The bare server's CPU per delivery divided by ours, at least.
};
constexpr std::array<Target, 3> kTargets{{{1, 0.75}, {10, 0.55}, {100, 0.5}}};
constexpr double kToBeast = 6;  ///< The plain Beast server's CPU divided by ours, at least.

void printRows(std::size_t clients, const Contender& ours, const Contender& bare,
               const Contender& plain) {
  const std::string who = std::to_string(clients) + (clients == 1 ? " client" : " clients");
  const std::string cpu = "fan-out to " + who + ", CPU per delivery";
  const auto inMicroseconds = [](const Contender& c) {
    return text("%.3f us", median(c.cpuPerDelivery));
  };
  const auto* target = std::find_if(kTargets.begin(), kTargets.end(),
                                    [&](const Target& t) { return t.clients == clients; });
  const double toBare = medianRatio(bare.cpuPerDelivery, ours.cpuPerDelivery);
  const bool hasTarget = target != kTargets.end();
  print({cpu, inMicroseconds(ours), std::string(bare.name()) + " " + inMicroseconds(bare),
         text("%.2f", toBare), hasTarget ? text(">= %.2f", target->toEpoll) : "",
         !hasTarget || toBare >= target->toEpoll});
  const double toPlain = medianRatio(plain.cpuPerDelivery, ours.cpuPerDelivery);
  print({cpu, inMicroseconds(ours), std::string(plain.name()) + " " + inMicroseconds(plain),
         text("%.1f", toPlain), hasTarget ? text(">= %.0f", kToBeast) : "", toPlain >= kToBeast});
  const auto perSecond = [](const Contender& c) {
    return text("%.0f/s", median(c.deliveriesPerSecond));
  };
  print({"fan-out to " + who + ", deliveries", perSecond(ours),
         std::string(bare.name()) + " " + perSecond(bare),
         text("%.2f", medianRatio(ours.deliveriesPerSecond, bare.deliveriesPerSecond)), "", true});
}

using Contenders = std::vector<std::shared_ptr<Contender>>;

/// All take turns; nobody always runs in the same one's wake.
void runInTurn(Contenders contenders) {
  for (const auto& contender : contenders) {
    contender->run();  // Grows windows and buffers; does not count.
    contender->forget();
  }
  for (int pair = 0; pair < kPairs; ++pair) {
    for (const auto& contender : contenders) contender->run();
    std::rotate(contenders.begin(), contenders.begin() + 1, contenders.end());
  }
}

class Bench {
 public:
  void measure(std::size_t clients) {
    const auto ours = add("ours", makeTransportServer, clients);
    const auto bare = add("bare epoll", makeEpollServer, clients);
    const auto plain = add("plain Beast", makePlainBeastServer, clients);
    runInTurn({ours, bare, plain});
    printRows(clients, *ours, *bare, *plain);
  }

  void compareCounts(std::size_t few, std::size_t many) {
    const auto ours = add("ours", makeTransportServer, few);
    const auto oursMany = add("ours", makeTransportServer, many);
    const auto bare = add("bare epoll", makeEpollServer, few);
    const auto bareMany = add("bare epoll", makeEpollServer, many);
    runInTurn({ours, oursMany, bare, bareMany});
    const double ratio = medianRatio(oursMany->cpuPerDelivery, ours->cpuPerDelivery);
    const double bareRatio = medianRatio(bareMany->cpuPerDelivery, bare->cpuPerDelivery);
    print({"fan-out, CPU per delivery to " + std::to_string(many),
           text("%.3f us", median(oursMany->cpuPerDelivery)),
           "to " + std::to_string(few) + text(" %.3f us", median(ours->cpuPerDelivery)) +
               text(" (bare epoll %.2f)", bareRatio),
           text("%.2f", ratio), "<= 1", ratio <= 1});
  }

  std::uint16_t nextPort() { return port_++; }

 private:
  using MakeServer = std::unique_ptr<BurstServer> (*)(std::uint16_t, const Frames&);

  std::shared_ptr<Contender> add(const char* name, MakeServer make, std::size_t clients) {
    const auto port = nextPort();
    return std::make_shared<Contender>(name, make(port, frames_), port, clients);
  }

  const Frames frames_ = makeFrames();
  std::uint16_t port_ = kFirstPort;
};

void run(const std::vector<std::size_t>& counts, bool isWhole, bool isSteady) {
  test::NetworkNamespace::enter();
  Bench bench;
  for (const auto clients : counts) bench.measure(clients);
  if (isWhole) bench.compareCounts(10, 100);
  if (isSteady) measureSteadyFanOut(bench.nextPort());
}

}  // namespace
}  // namespace tarnlink::bench

int main(int argc, char** argv) {
  using namespace tarnlink::bench;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  try {
    if (!arguments.empty() && arguments.front() == ReadingClients::kRole) {
      return ReadingClients::main({arguments.begin() + 1, arguments.end()});
    }
    std::vector<std::size_t> counts;
    bool isSteady = arguments.empty();
    for (const auto& argument : arguments) {
      if (argument == "steady") {
        isSteady = true;
      } else {
        counts.push_back(std::stoul(argument));
      }
    }
    if (arguments.empty()) counts = {1, 10, 100};
    run(counts, arguments.empty(), isSteady);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fanout_bench: %s\nusage: fanout_bench [CLIENTS...] [steady]\n",
                 error.what());
    return 1;
  }
}
