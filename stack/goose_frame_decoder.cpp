#include "stack/goose_frame_decoder.h"

#include "goosestack/ethernet_frame.h"
#include "stack/goose_message_builder.h"

namespace goosestack {

bool GooseFrameDecoder::decode(ByteView frame, TimePoint receivedAt, GooseMessage& message) {
  const auto envelope = EthernetFrame::parse(frame);
  if (!envelope || !GoosePdu::parseInto(envelope->payload, pdu_)) return false;
  buildGooseMessage(*envelope, pdu_, receivedAt, message);
  return true;
}

}  // namespace goosestack
