#include "stack/capture_loop.h"

#include <pcap/pcap.h>

#include <utility>

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
  while (!isStopping_) {
    const int result = pcap_dispatch(handle_.get(), -1, onPacket, user);
    handlers_.onBurstEnd();
    if (result < 0) break;
  }
  handlers_.onEnd();
}

}  // namespace tarnlink
