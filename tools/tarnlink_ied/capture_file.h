// Reading a recorded capture, pcap or pcapng, frame by frame.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "stack/pcap_access.h"
#include "tools/tarnlink_ied/frame_sink.h"

namespace tarnlink {

struct RecordedFrame {
  std::chrono::nanoseconds time;  ///< Since 1970, as the file says.
  goosestack::ByteView octets;    ///< Borrowed from the file until its next `next()`.
  bool isWhole;                   ///< False when the capture kept only the frame's beginning.
};

/// One pass over the file. One thread.
class CaptureFile {
 public:
  /// Refuses files that cannot be read, are no capture, or hold no Ethernet frames.
  static IedResult<CaptureFile> open(const std::string& path);
  /// Nothing at the end of the file; an error where the file is damaged.
  IedResult<std::optional<RecordedFrame>> next();

 private:
  CaptureFile(std::string path, goosestack::PcapHandle handle);

  std::string path_;
  goosestack::PcapHandle handle_;
};

}  // namespace tarnlink
