#include "stack/capture_loop.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <utility>

#include "stack/wake_pace.h"

namespace goosestack {
namespace {

void onPacket(u_char* user, const pcap_pkthdr* header, const u_char* packet) {
  if (user == nullptr || header == nullptr || packet == nullptr) return;
  const auto& handlers = *reinterpret_cast<const CaptureLoop::Handlers*>(user);
  const auto sinceEpoch =
      std::chrono::seconds(header->ts.tv_sec) + std::chrono::microseconds(header->ts.tv_usec);
  handlers.onFrame(ByteView(packet, header->caplen), TimePoint(sinceEpoch));
}

}  // namespace

CaptureLoop::CaptureLoop(PcapHandle handle, Handlers handlers)
    : handle_(std::move(handle)), handlers_(std::move(handlers)), thread_([this] { run(); }) {}

CaptureLoop::~CaptureLoop() {
  breakLoop();
  thread_.join();
}

void CaptureLoop::breakLoop() {
  isStopping_ = true;
  pcap_breakloop(handle_.get());
}

void CaptureLoop::run() {
  auto* user = reinterpret_cast<u_char*>(&handlers_);
  int result = 0;
  WakePace pace;
  while (!isStopping_ && result >= 0) {
    if (!handlers_.hasRoom()) {
      std::this_thread::sleep_for(kRoomPause);
      tellDropsWhenDue(Clock::now());
      continue;
    }
    result = pcap_dispatch(handle_.get(), kBurstLimit, onPacket, user);
    handlers_.onBurstEnd();
    const auto now = Clock::now();
    tellDropsWhenDue(now);
    const auto pause = pace.pauseAfter(std::max(result, 0), now);
    const bool isMoreAtHand = result >= kBurstLimit;
    if (!isMoreAtHand && pause > pause.zero()) std::this_thread::sleep_for(pause);
  }
  const bool hasDied = result < 0 && result != PCAP_ERROR_BREAK && !isStopping_;
  std::optional<std::string> death;
  if (hasDied) death = pcap_geterr(handle_.get());  // Before another call can replace the text.
  tellDrops(Clock::now(), true);
  handlers_.onEnd(std::move(death));
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
  if (fresh > 0 || (isLast && drops_ > 0)) handlers_.onDrops({fresh, drops_, isLast});
}

}  // namespace goosestack
