// Opening libpcap handles on a network interface: the only place where the stack does so.
#pragma once

#include <memory>
#include <string>

#include "goosestack/capture_mode.h"
#include "goosestack/goose_error.h"

struct pcap;

namespace goosestack {

struct PcapCloser {
  void operator()(pcap* handle) const;
};

/// Owns one libpcap handle and closes it.
using PcapHandle = std::unique_ptr<pcap, PcapCloser>;

/// Snapshot length of captures, as the receivers ask for it. Octets.
inline constexpr int kSnapshotLength = 65536;
/// Read time-out of captures: the longest that the kernel holds back a frame. Milliseconds.
inline constexpr int kReadTimeout = 100;
/// Kernel buffer of a low-latency capture: about 7,900 full frames. Octets.
inline constexpr int kLowLatencyBuffer = 16 << 20;

/// A handle for sending raw frames. Fails with pcapOpenFailed and libpcap's text.
GooseResult<PcapHandle> openSendPcap(const std::string& interface);

/// A promiscuous capture of one EtherType (libpcap filter text such as "0x88b8"), plain or inside
/// one 802.1Q tag. `bufSize` is the snapshot length in octets; a low-latency capture lowers it to
/// the link's largest frame. Fails with permissionDenied, pcapOpenFailed or pcapFilterFailed.
/// Reentrant.
GooseResult<PcapHandle> openPcapWithFilter(const std::string& interface,
                                           const std::string& etherTypeHex, int bufSize,
                                           CaptureMode mode = CaptureMode::standard);

}  // namespace goosestack
