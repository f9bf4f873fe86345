#include "tests/support/frame_recorder.h"

#include <pcap/pcap.h>

#include <array>
#include <stdexcept>
#include <thread>

namespace tarnlink::test {
using namespace goosestack;
namespace {

constexpr int kSlotSize = 2048;        // Octets; a full Ethernet frame fits.
constexpr int kBufferSize = 16 << 20;  // Octets.
constexpr std::chrono::milliseconds kPoll{1};

void store(u_char* user, const pcap_pkthdr* header, const u_char* packet) {
  auto& frames = *reinterpret_cast<std::vector<RecordedFrame>*>(user);
  // The handle's precision makes the microseconds nanoseconds.
  const auto time =
      std::chrono::seconds(header->ts.tv_sec) + std::chrono::nanoseconds(header->ts.tv_usec);
  frames.push_back({Bytes(packet, packet + header->caplen), time});
}

}  // namespace

FrameRecorder::FrameRecorder(const std::string& interface, const std::string& filter) {
  std::array<char, PCAP_ERRBUF_SIZE> errors{};
  handle_.reset(pcap_create(interface.c_str(), errors.data()));
  if (!handle_) throw std::runtime_error(errors.data());
  pcap* handle = handle_.get();
  pcap_set_snaplen(handle, kSlotSize);
  pcap_set_promisc(handle, 1);
  pcap_set_immediate_mode(handle, 1);
  pcap_set_buffer_size(handle, kBufferSize);
  pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
  bpf_program program{};
  const bool isReady = pcap_activate(handle) >= 0 && pcap_setdirection(handle, PCAP_D_IN) == 0 &&
                       pcap_setnonblock(handle, 1, errors.data()) == 0 &&
                       pcap_compile(handle, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
  const bool isFiltered = isReady && pcap_setfilter(handle, &program) == 0;
  pcap_freecode(&program);
  if (!isFiltered) throw std::runtime_error(interface + ": " + pcap_geterr(handle));
}

const std::vector<RecordedFrame>& FrameRecorder::frames(std::size_t count,
                                                        std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  drain();
  while (frames_.size() < count && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kPoll);
    drain();
  }
  return frames_;
}

void FrameRecorder::clear() {
  drain();
  frames_.clear();
}

void FrameRecorder::drain() {
  auto* user = reinterpret_cast<u_char*>(&frames_);
  while (pcap_dispatch(handle_.get(), -1, store, user) > 0) {
  }
}

}  // namespace tarnlink::test
