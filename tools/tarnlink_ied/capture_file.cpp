#include "tools/tarnlink_ied/capture_file.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace tarnlink {
namespace {

std::chrono::nanoseconds captureTime(const pcap_pkthdr& header) {
  // A damaged time stamp must not overflow; nanoseconds since 1970 fit 64 bits until 2262.
  constexpr std::int64_t kLastSecond = 9'000'000'000;
  const auto second = std::clamp<std::int64_t>(header.ts.tv_sec, 0, kLastSecond);
  // tv_usec counts nanoseconds: the handle is opened with that precision.
  return std::chrono::seconds(second) + std::chrono::nanoseconds(header.ts.tv_usec);
}

}  // namespace

CaptureFile::CaptureFile(std::string path, goosestack::PcapHandle handle)
    : path_(std::move(path)), handle_(std::move(handle)) {}

IedResult<CaptureFile> CaptureFile::open(const std::string& path) {
  std::array<char, PCAP_ERRBUF_SIZE> errors{};
  goosestack::PcapHandle handle(pcap_open_offline_with_tstamp_precision(
      path.c_str(), PCAP_TSTAMP_PRECISION_NANO, errors.data()));
  if (!handle) {
    const std::string text = errors.data();
    // libpcap names the file in some of its texts and not in others.
    return IedError{"cannot replay " + (text.find(path) == text.npos ? path + ": " : "") + text};
  }
  if (const int type = pcap_datalink(handle.get()); type != DLT_EN10MB) {
    const char* name = pcap_datalink_val_to_name(type);
    return IedError{"cannot replay " + path + ": it holds " +
                    (name != nullptr ? name : "link type " + std::to_string(type)) +
                    " frames, not Ethernet"};
  }
  return CaptureFile(path, std::move(handle));
}

IedResult<std::optional<RecordedFrame>> CaptureFile::next() {
  pcap_pkthdr* header = nullptr;
  const std::uint8_t* octets = nullptr;
  switch (pcap_next_ex(handle_.get(), &header, &octets)) {
    case 1:
      return RecordedFrame{captureTime(*header), goosestack::ByteView(octets, header->caplen),
                           header->caplen == header->len};
    case PCAP_ERROR_BREAK:
      return std::optional<RecordedFrame>();
    default:
      return IedError{path_ + " is damaged: " + pcap_geterr(handle_.get())};
  }
}

}  // namespace tarnlink
