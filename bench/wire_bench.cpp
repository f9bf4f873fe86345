// From the wire to WebSocket clients: the highest rate without a lost frame, and the latency.
//
// Everything runs on one machine, in a private network: the sender, the kernel's way through a veth
// pair (which runs on the sender's processor), the bridge and its clients. So the sender's cost
// counts against every receiver alike, and on two processors it is the largest. Receivers take
// turns, so that the machine's noise hits all of them.
#include <cstdio>
#include <exception>

#include "bench/drop_free_rate.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/tshark_run.h"
#include "bench/wire_latency.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
namespace {

constexpr const char* kBus = "bus0";
constexpr const char* kIed = "ied0";
constexpr std::uint16_t kPort = 8765;

std::string thousands(double rate) {
  return text(rate < 10'000 ? "%.1f k/s" : "%.0f k/s", rate / 1e3);
}

std::string microseconds(double time) {
  return text("%.0f us", time);
}

std::string times(double ratio) {
  return text(ratio < 10 ? "%.2f x" : "%.0f x", ratio);
}

void printRate(const char* what, double ours, double bare, double target) {
  const double ratio = bare > 0 ? ours / bare : 0;
  print({what, thousands(ours), "bare pcap_dispatch " + thousands(bare), times(ratio),
         ">= " + times(target), ratio >= target});
}

/// Gives the rate of the bridge with one client.
double benchRates(FrameFlood& flood, const BridgeUnderLoad& bridge) {
  const Bytes frame = eightValueFrame(1);
  BareLoop bareLoop(kBus);
  UnmatchedBridge unmatched(bridge);
  TextMaker textMaker(kBus);
  SubscribedBridge subscribed(bridge);
  DropFreeRate rates[] = {{"bare loop", bareLoop},
                          {"no matching client", unmatched},
                          {"text, no client", textMaker},
                          {"one client", subscribed}};
  for (int round = 0; round < kPairs; ++round) {
    for (auto& rate : rates) rate.probe(flood, frame);
  }
  const double bare = rates[0].prove(flood, frame);
  constexpr double kUnmatchedTarget = 0.8;
  constexpr double kSubscribedTarget = 0.5;
  printRate("frames without loss, no matching client", rates[1].prove(flood, frame), bare,
            kUnmatchedTarget);
  printRate("frames without loss, text for no client", rates[2].prove(flood, frame), bare,
            kUnmatchedTarget);
  const double one = rates[3].prove(flood, frame);
  printRate("frames without loss, one client", one, bare, kSubscribedTarget);
  return one;
}

void benchTshark(FrameFlood& flood, double ours) {
  constexpr double kTarget = 30;
  const auto tshark = TsharkRun::start(kBus, flood);
  if (!tshark) {
    std::fprintf(stderr, "tshark does not capture here; its row is left out\n");
    return;
  }
  std::vector<double> rates;
  const Bytes frame = eightValueFrame(1);
  for (int i = 0; i < kPairs; ++i) rates.push_back(tshark->sustainedRate(frame));
  const double ratio = ours / median(rates);
  print({"frames live, one client", thousands(ours), "tshark -l -T ek " + thousands(median(rates)),
         times(ratio), ">= " + times(kTarget), ratio >= kTarget});
}

struct LatencySeries {
  std::vector<double> p50;
  std::vector<double> p99;

  void add(const Latency& latency) {
    p50.push_back(latency.p50);
    p99.push_back(latency.p99);
  }
};

void benchLatency(const BridgeUnderLoad& lowLatency, const BridgeUnderLoad& standard) {
  LatencyRun run(kBus, kIed);
  LatencySeries client;
  LatencySeries late;
  LatencySeries limit;
  for (int round = 0; round < kPairs; ++round) {
    client.add(run.wireToClient(lowLatency));
    const auto capture = run.wireToCapture();
    const auto loopback = LatencyRun::loopbackRoundTrip();
    limit.add({capture.p50 + loopback.p50 / 2, capture.p99 + loopback.p99 / 2});
    late.add(run.wireToClient(standard));
    std::fprintf(stderr,
                 "latency p50: client %.0f, capture %.0f, round trip %.0f; standard %.0f us\n",
                 client.p50.back(), capture.p50, loopback.p50, late.p50.back());
  }
  constexpr double kTarget = 1.5;
  const double ratio = medianRatio(client.p50, limit.p50);
  const std::string beside = "immediate capture + half loopback ";
  print({"wire to client, --low-latency, p50", microseconds(median(client.p50)),
         beside + microseconds(median(limit.p50)), times(ratio), "<= " + times(kTarget),
         ratio <= kTarget});
  print({"wire to client, --low-latency, p99", microseconds(median(client.p99)),
         beside + microseconds(median(limit.p99)), times(medianRatio(client.p99, limit.p99)), ""});
  const double timeout = kReadTimeout * 1e3;
  for (const auto& [what, time] :
       {std::pair("wire to client, without it, p50", median(late.p50)),
        std::pair("wire to client, without it, p99", median(late.p99))}) {
    print({what, microseconds(time), "read time-out " + microseconds(timeout),
           times(time / timeout), ""});
  }
}

void run() {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kIed);
  const BridgeUnderLoad lowLatency(kBus, kPort, true);
  const BridgeUnderLoad standard(kBus, kPort + 1, false);
  FrameFlood flood(kIed);
  benchLatency(lowLatency, standard);
  const double ours = benchRates(flood, lowLatency);
  benchTshark(flood, ours);
}

}  // namespace
}  // namespace tarnlink::bench

int main() {
  try {
    tarnlink::bench::run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wire_bench: %s\n", error.what());
    return 1;
  }
}
