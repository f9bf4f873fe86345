#include "bench/tshark_run.h"

#include <future>
#include <stdexcept>

#include "bench/sample_traffic.h"

namespace tarnlink::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kStartTries = 100;
constexpr std::chrono::milliseconds kStartPause{100};
constexpr std::chrono::seconds kPatience{20};

}  // namespace

std::unique_ptr<TsharkRun> TsharkRun::start(const std::string& interface, FrameFlood& flood) {
  auto process = BackgroundProcess::start(
      {TSHARK, "-l", "-T", "ek", "-Q", "-i", interface, "-f", "ether proto 0x88b8"});
  if (!process) return nullptr;
  std::unique_ptr<TsharkRun> run(new TsharkRun(std::move(*process), flood));
  // It captures when the first frame comes out at the other end.
  for (int i = 0; i < kStartTries; ++i) {
    flood.sendOne(eightValueFrame(0));
    if (!run->waitForPackets(1, kStartPause)) continue;
    while (run->waitForPackets(1, kStartPause)) {
    }
    return run;
  }
  return nullptr;
}

double TsharkRun::sustainedRate(ByteView frame) {
  const auto begin = Clock::now();
  auto sending = std::async(std::launch::async, [&] { return flood_.run(frame, kRate, kBurst); });
  const auto count =
      static_cast<std::uint64_t>(kRate * std::chrono::duration<double>(kBurst).count());
  if (!waitForPackets(count, kPatience)) throw std::runtime_error("tshark lost frames");
  return static_cast<double>(sending.get().frames) /
         std::chrono::duration<double>(Clock::now() - begin).count();
}

bool TsharkRun::waitForPackets(std::uint64_t count, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (count > 0) {
    const auto event = process_->next(line_, never_, deadline);
    if (event != BackgroundProcess::Event::line) return false;
    // Each packet is two lines: where Elasticsearch is to put it, then the packet.
    if (line_.starts_with("{\"timestamp\"")) --count;
  }
  return true;
}

}  // namespace tarnlink::bench
