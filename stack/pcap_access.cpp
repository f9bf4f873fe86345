#include "stack/pcap_access.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "stack/network_link.h"

namespace goosestack {
namespace {

using ErrorBuffer = std::array<char, PCAP_ERRBUF_SIZE>;

constexpr int kSendReadTimeout = 1;  // Milliseconds; the handle is never read.
// Smallest slot of a low-latency capture; 802.3 frames with a tag need 1,518 octets.
constexpr int kMinLowLatencySnapshot = 2048;

GooseError openError(std::string_view text) {
  // libpcap gives no code here; these are its texts for a process without CAP_NET_RAW.
  if (text.find("Operation not permitted") != text.npos || text.find("EACCES") != text.npos) {
    return GooseError::permissionDenied();
  }
  return GooseError::pcapOpenFailed(std::string(text));
}

std::string errorText(pcap* handle) {
  const char* text = pcap_geterr(handle);
  return text != nullptr && *text != '\0' ? text : "unknown pcap error";
}

int lowLatencySnapshot(const std::string& interface, int limit) {
  const auto mtu = linkMtu(interface);
  if (!mtu) return limit;
  return std::min(limit, std::max(kMinLowLatencySnapshot, *mtu + kTaggedHeaderLength));
}

GooseResult<PcapHandle> openStandard(const std::string& interface, int snapshot) {
  ErrorBuffer errors{};
  PcapHandle handle(pcap_open_live(interface.c_str(), snapshot, 1, kReadTimeout, errors.data()));
  if (!handle) return openError(errors.data());
  return handle;
}

GooseResult<PcapHandle> openLowLatency(const std::string& interface, int snapshot) {
  ErrorBuffer errors{};
  PcapHandle handle(pcap_create(interface.c_str(), errors.data()));
  if (!handle) return openError(errors.data());
  pcap_set_snaplen(handle.get(), lowLatencySnapshot(interface, snapshot));
  pcap_set_promisc(handle.get(), 1);
  pcap_set_timeout(handle.get(), kReadTimeout);
  pcap_set_immediate_mode(handle.get(), 1);
  pcap_set_buffer_size(handle.get(), kLowLatencyBuffer);
  const int status = pcap_activate(handle.get());
  if (status == PCAP_ERROR_PERM_DENIED) return GooseError::permissionDenied();
  if (status < 0) {
    const std::string known = pcap_statustostr(status);
    const std::string detail = errorText(handle.get());
    const bool isNews = status == PCAP_ERROR || detail != known;
    return GooseError::pcapOpenFailed(interface + ": " + (isNews ? detail : known));
  }
  return handle;  // Warnings (a link without promiscuous mode, say) do not matter here.
}

}  // namespace

void PcapCloser::operator()(pcap* handle) const {
  pcap_close(handle);
}

GooseResult<PcapHandle> openSendPcap(const std::string& interface) {
  ErrorBuffer errors{};
  PcapHandle handle(
      pcap_open_live(interface.c_str(), kSnapshotLength, 0, kSendReadTimeout, errors.data()));
  if (!handle) return GooseError::pcapOpenFailed(errors.data());
  return handle;
}

GooseResult<PcapHandle> openPcapWithFilter(const std::string& interface,
                                           const std::string& etherTypeHex, int bufSize,
                                           CaptureMode mode) {
  auto opened = mode == CaptureMode::lowLatency ? openLowLatency(interface, bufSize)
                                                : openStandard(interface, bufSize);
  if (!opened) return opened;
  pcap* handle = opened->get();
  // In a libpcap filter `vlan` shifts every test after it: it stands once, and last.
  const std::string filter =
      "ether proto " + etherTypeHex + " or (vlan and ether proto " + etherTypeHex + ")";
  bpf_program program{};
  if (pcap_compile(handle, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    return GooseError::pcapFilterFailed(errorText(handle));
  }
  const bool installed = pcap_setfilter(handle, &program) == 0;
  const std::string error = installed ? std::string() : errorText(handle);
  pcap_freecode(&program);
  if (!installed) return GooseError::pcapFilterFailed(error);
  return opened;
}

}  // namespace goosestack
