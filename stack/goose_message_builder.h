// The step from a decoded frame to the message that a receiver hands out.
#pragma once

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_message.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// Overwrites every field of `message`, which may be a recycled one. Texts and values are swapped
/// with those of `pdu`, whose content is unspecified afterwards: storage circulates between the two
/// instead of being allocated for each frame. `receivedAt` is the frame's capture time.
void buildGooseMessage(const ParsedEthernetFrame& frame, GoosePdu& pdu, TimePoint receivedAt,
                       GooseMessage& message);

}  // namespace goosestack
