#include "stack/sv_frame_decoder.h"

#include "goosestack/ethernet_frame.h"

namespace goosestack {

bool SvFrameDecoder::decode(ByteView frame, TimePoint receivedAt, SvCapturedFrame& captured) {
  const auto parsed = EthernetFrame::parse(frame, kEtherTypeSv);
  if (!parsed) return false;
  captured.pdu.assign(parsed->payload.begin(), parsed->payload.end());
  formatMacInto(parsed->dstMac, captured.dstMac);
  formatMacInto(parsed->srcMac, captured.srcMac);
  captured.vlanId = parsed->vlanId;
  captured.receivedAt = receivedAt;
  return true;
}

}  // namespace goosestack
