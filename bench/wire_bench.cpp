// From the wire to WebSocket clients: the latency, and what a flood delivers.
//
// Everything runs on one machine, in a private network: the sender, the kernel's way through a veth
// pair (which runs on the sender's processor), the receiver and its clients. So the sender's cost
// counts against every receiver alike, and on two processors it is the largest. Receivers'
// runs are interleaved, so that the machine's noise hits all of them.
#include <pcap/pcap.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "bench/bridge.h"
#include "bench/burst_server.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/wire.h"
#include "stack/pcap_access.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kMinimalPort = 8767;

/// pcap_dispatch on a thread of its own, with the bridge's options; `take` is its callback.
class CaptureThread {
 public:
  explicit CaptureThread(std::function<void(ByteView)> take) : take_(std::move(take)) {
    thread_ = std::thread([this] {
      constexpr auto kTake = [](u_char* self, const pcap_pkthdr* header, const u_char* packet) {
        reinterpret_cast<CaptureThread*>(self)->take_({packet, header->caplen});
      };
      auto* self = reinterpret_cast<u_char*>(this);
      while (pcap_dispatch(handle_.get(), -1, kTake, self) >= 0 && !isStopping_) {
      }
    });
  }
  ~CaptureThread() {
    isStopping_ = true;
    pcap_breakloop(handle_.get());
    thread_.join();
  }

 private:
  std::function<void(ByteView)> take_;
  PcapHandle handle_ =
      openPcapWithFilter(kBus, "0x88b8", kSnapshotLength, CaptureMode::lowLatency).value();
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

// ---- Latency ----

constexpr std::size_t kFrames = 1'000;
constexpr std::chrono::milliseconds kSpacing{1};

/// The limit: the least that a bridge between libpcap and sockets can be. The capture thread wakes
/// the thread that serves clients for each frame by an eventfd, and that one sends a ready event
/// with one gathered write.
class MinimalBridge {
 public:
  Readers& reader() { return reader_; }

 private:
  const Frames frames_ = Frames(kBurst, TextFrame::copyOf(std::string(kSampleEventSize, 'x')));
  std::unique_ptr<BurstServer> server_ = makeBareServer(kMinimalPort, frames_, 1);
  CaptureThread capture_{[this](ByteView) { server_->feed(1); }};
  Readers reader_{1, kMinimalPort};
};

struct Latency {
  Figures p50;  // Microseconds, one a run.
  Figures p99;

  /// From handing a frame to the kernel to having its event, over kFrames frames.
  void measure(WireSender& wire, Readers& reader) {
    const Bytes frame = eightValueFrame();
    std::vector<Clock::time_point> sent(kFrames);
    reader.noteArrivals(kFrames);
    paced(kFrames, kSpacing, [&](std::size_t i) {
      sent[i] = Clock::now();
      wire.send(frame);
    });
    reader.waitFor(kFrames);
    Figures times;
    for (std::size_t i = 0; i < kFrames; ++i) {
      const std::chrono::duration<double, std::micro> time = reader.arrivals()[i] - sent[i];
      times.push_back(time.count());
    }
    p50.push_back(quantile(times, 0.5));
    p99.push_back(quantile(times, 0.99));
  }
};

void measureLatency(WireSender& wire, Bridge& bridge) {
  Latency ours;
  Latency minimal;
  for (int round = 0; round < kPairs; ++round) {
    {
      auto reader = bridge.subscribe(1);
      ours.measure(wire, reader);
    }
    Bridge::settle();
    MinimalBridge peer;
    minimal.measure(wire, peer.reader());
  }
  const std::string limit = "minimal program";
  compare("wire to client, --low-latency, p50", "%.0f us", ours.p50, limit, minimal.p50,
          atMost(1.15));
  compare("wire to client, --low-latency, p99", "%.0f us", ours.p99, limit, minimal.p99,
          atMost(1.5));
}

// ---- A flood ----

constexpr std::chrono::seconds kFlood{2};
// Without a frame after which the rest is lost; longer than a capture's read time-out.
constexpr std::chrono::milliseconds kQuiet{400};
constexpr std::chrono::milliseconds kPoll{1};

struct Flood {
  Figures rate;  // Frames received a second, from the first one sent to the last one received.
  double lost = 0;

  template <class Count>
  void measure(WireSender& wire, Count count) {
    const Bytes frame = eightValueFrame();
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    const auto begin = Clock::now();
    for (; Clock::now() < begin + kFlood; sent += WireSender::kMostAtOnce) {
      wire.send(frame, WireSender::kMostAtOnce);
    }
    auto last = Clock::now();
    while (received < sent && Clock::now() < last + kQuiet) {
      std::this_thread::sleep_for(kPoll);
      const std::uint64_t now = count();
      if (now != received) last = Clock::now();
      received = now;
    }
    if (received > sent) throw std::runtime_error("more frames than were sent");
    rate.push_back(static_cast<double>(received) /
                   std::chrono::duration<double, std::milli>(last - begin).count());
    lost += static_cast<double>(sent - received);
  }
};

/// What a user would run instead, with its output read, offered more than it takes. Thousands a
/// second; nothing where it cannot run.
double tsharkRate(WireSender& wire) {
  constexpr int kTaken = 15'000;                     // Frames.
  constexpr std::chrono::microseconds kOffered{40};  // Between two frames.
  const std::jthread sender([&](const std::stop_token& stop) {
    const Bytes frame = eightValueFrame();
    while (!stop.stop_requested()) {
      paced(1'000, kOffered, [&](std::size_t) { wire.send(frame); });
    }
  });
  const auto command = std::string("exec " TSHARK " -l -T ek -Q -f 'ether proto 0x88b8' -i ") +
                       kBus + " -a duration:20 -c " + std::to_string(kTaken);
  std::FILE* output = ::popen(command.c_str(), "r");
  std::array<char, 65536> line;
  int taken = 0;
  Clock::time_point begin;
  Clock::time_point last;
  while (std::fgets(line.data(), line.size(), output) != nullptr) {
    if (std::strncmp(line.data(), "{\"timestamp\"", 12) != 0) continue;  // Its first line.
    last = Clock::now();
    if (taken++ == 0) begin = last;
  }
  const std::chrono::duration<double, std::milli> time = last - begin;
  ::pclose(output);
  return taken / time.count();
}

void measureFlood(WireSender& wire, Bridge& bridge) {
  Flood ours;
  Flood bare;
  for (int round = 0; round < kPairs; ++round) {
    {
      auto reader = bridge.subscribe(1);
      ours.measure(wire, [&reader] { return reader.fewest(); });
    }
    Bridge::settle();
    std::atomic<std::uint64_t> count{0};
    std::array<char, kSnapshotLength> copy;
    const CaptureThread loop([&](ByteView octets) {
      std::memcpy(copy.data(), octets.data(), octets.size());
      count.fetch_add(1, std::memory_order_relaxed);
    });
    bare.measure(wire, [&count] { return count.load(); });
  }
  compare("frames of a flood to one client", "%.0f k/s", ours.rate, "bare pcap_dispatch", bare.rate,
          atLeast(0.5));
  report("lost of them", "%.0f", ours.lost, atMost(0), text("bare pcap_dispatch %.0f", bare.lost));
  if (const double tshark = tsharkRate(wire); tshark > 0) {
    compare("frames live, to one client", "%.1f k/s", {median(ours.rate)}, "tshark -l -T ek",
            {tshark}, atLeast(30));
  } else {
    std::fputs("tshark does not capture here; its row is left out\n", stderr);
  }
}

}  // namespace

void run() {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kIed);
  Bridge bridge(kBus, 8765);
  WireSender wire(kIed);
  measureLatency(wire, bridge);
  measureFlood(wire, bridge);
}

}  // namespace tarnlink::bench
