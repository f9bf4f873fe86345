// Captures Sampled Values frames (EtherType 0x88BA, plain or VLAN-tagged) as a stream of undecoded
// records.
#pragma once

#include "goosestack/sv_records.h"
#include "stack/capture_receiver.h"

namespace goosestack {

class SvFrameDecoder {
 public:
  using Record = SvCapturedFrame;
  static constexpr const char* kEtherTypeHex = "0x88ba";

  /// False for frames that are truncated or no SV.
  static bool decode(ByteView frame, TimePoint receivedAt, SvCapturedFrame& captured);
};

/// Other frames vanish without ending the stream. Keeps no counters and logs nothing.
using SvReceiver = CaptureReceiver<SvFrameDecoder>;

}  // namespace goosestack
