#include "stack/capture_loop.h"

#include <pcap/pcap.h>

#include <thread>
#include <utility>

#include "stack/wake_pace.h"

namespace tarnlink {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

void onPacket(u_char* user, const pcap_pkthdr* header, const u_char* packet) {
  if (user == nullptr || header == nullptr || packet == nullptr) return;
  const auto& handlers = *reinterpret_cast<const CaptureLoop::Handlers*>(user);
  const double seconds = static_cast<double>(header->ts.tv_sec) +
                         static_cast<double>(header->ts.tv_usec) / kMicrosecondsPerSecond;
  handlers.onFrame(ByteView(packet, header->caplen), timeFromUnixSeconds(seconds));
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
  WakePace pace(WakePace::Clock::now());
  while (!isStopping_ && result >= 0) {
    result = pcap_dispatch(handle_.get(), -1, onPacket, user);
    handlers_.onBurstEnd();
    const auto now = WakePace::Clock::now();
    if (const auto next = pace.next(now); next > now) std::this_thread::sleep_until(next);
  }
  const bool hasDied = result < 0 && result != PCAP_ERROR_BREAK && !isStopping_;
  handlers_.onEnd(hasDied ? std::optional<std::string>(pcap_geterr(handle_.get())) : std::nullopt);
}

}  // namespace tarnlink
