#include "stack/capture_loop.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <utility>

#include "stack/coalescing.h"

namespace goosestack {
namespace {

void onPacket(u_char* user, const pcap_pkthdr* header, const u_char* packet) {
  if (user == nullptr || header == nullptr || packet == nullptr) return;
  const auto sinceEpoch =
      std::chrono::seconds(header->ts.tv_sec) + std::chrono::microseconds(header->ts.tv_usec);
  reinterpret_cast<CaptureSink*>(user)->takeFrame(ByteView(packet, header->caplen),
                                                  TimePoint(sinceEpoch));
}

}  // namespace

CaptureLoop::CaptureLoop(PcapHandle handle, std::unique_ptr<CaptureSink> sink)
    : handle_(std::move(handle)), sink_(std::move(sink)), thread_([this] { run(); }) {}

CaptureLoop::~CaptureLoop() {
  breakLoop();
  thread_.join();
}

void CaptureLoop::breakLoop() {
  isStopping_ = true;
  const std::lock_guard hold(lock_);
  if (handle_) pcap_breakloop(handle_.get());
}

void CaptureLoop::run() {
  auto* user = reinterpret_cast<u_char*>(sink_.get());
  int result = 0;
  bool hasRoom = true;
  Coalescing coalescing;
  while (!isStopping_ && result >= 0) {
    if (!hasRoom) {
      std::this_thread::sleep_for(kRoomPause);
      tellDropsWhenDue(Clock::now());
      hasRoom = sink_->hasRoom();
      continue;
    }
    result = pcap_dispatch(handle_.get(), kBurstLimit, onPacket, user);
    hasRoom = sink_->endBurst();
    const auto now = Clock::now();
    tellDropsWhenDue(now);
    const auto pause = coalescing.pauseAfter(std::max(result, 0), now);
    const bool isMoreAtHand = result >= kBurstLimit;
    if (!isMoreAtHand && pause > pause.zero()) std::this_thread::sleep_for(pause);
  }
  const bool hasDied = result < 0 && result != PCAP_ERROR_BREAK && !isStopping_;
  std::optional<std::string> death;
  if (hasDied) death = pcap_geterr(handle_.get());  // Before another call can replace the text.
  tellDrops(Clock::now(), true);
  if (death) sink_->tellDeath(*std::move(death));
  PcapHandle closing;
  const std::lock_guard hold(lock_);
  closing.swap(handle_);
}

void CaptureLoop::tellDropsWhenDue(Clock::time_point now) {
  if (now - dropsAsked_ >= kDropPause) tellDrops(now, false);
}

void CaptureLoop::tellDrops(Clock::time_point now, bool isLast) {
  dropsAsked_ = now;
  pcap_stat counters{};
  std::uint32_t fresh = 0;
  if (pcap_stats(handle_.get(), &counters) == 0) {
    fresh = counters.ps_drop - static_cast<std::uint32_t>(drops_);  // libpcap's count wraps.
  }
  drops_ += fresh;
  if (fresh > 0 || (isLast && drops_ > 0)) sink_->tellDrops({fresh, drops_, isLast});
}

}  // namespace goosestack
