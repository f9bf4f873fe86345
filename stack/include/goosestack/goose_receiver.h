// Captures GOOSE frames (EtherType 0x88B8, plain or VLAN-tagged) as a stream of decoded messages.
#pragma once

#include "goosestack/goose_message.h"
#include "goosestack/goose_pdu.h"
#include "stack/capture_receiver.h"

namespace goosestack {

class GooseFrameDecoder {
 public:
  using Record = GooseMessage;
  static constexpr const char* kEtherTypeHex = "0x88b8";

  /// False for frames that are no well-formed GOOSE.
  bool decode(ByteView frame, TimePoint receivedAt, GooseMessage& message);

 private:
  GoosePdu pdu_;  // Its storage and that of recycled messages change places.
};

/// Undecodable frames vanish without ending the stream. Keeps no counters and logs nothing.
using GooseReceiver = CaptureReceiver<GooseFrameDecoder>;

}  // namespace goosestack
