// From a captured frame to a GOOSE message.
#pragma once

#include "goosestack/bytes.h"
#include "goosestack/goose_message.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// As CaptureReceiver has it.
class GooseFrameDecoder {
 public:
  using Record = GooseMessage;
  static constexpr const char* kEtherTypeHex = "0x88b8";

  /// False for frames that are no well-formed GOOSE. Otherwise every field of `message` is
  /// overwritten; its texts and values are swapped with those of the PDU before, so that storage
  /// circulates instead of being allocated for each frame.
  bool decode(ByteView frame, TimePoint receivedAt, GooseMessage& message);

 private:
  GoosePdu pdu_;  // Its storage and that of recycled messages change places.
};

}  // namespace goosestack
