// From a captured frame to an undecoded Sampled Values record.
#pragma once

#include "goosestack/bytes.h"
#include "goosestack/sv_records.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// As CaptureReceiver has it.
class SvFrameDecoder {
 public:
  using Record = SvCapturedFrame;
  static constexpr const char* kEtherTypeHex = "0x88ba";

  /// False for frames that are truncated or no SV.
  static bool decode(ByteView frame, TimePoint receivedAt, SvCapturedFrame& captured);
};

}  // namespace goosestack
