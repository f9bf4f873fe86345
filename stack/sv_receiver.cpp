#include "goosestack/sv_receiver.h"

#include "goosestack/sv_frame.h"

namespace goosestack {

bool SvFrameDecoder::decode(ByteView frame, TimePoint receivedAt, SvCapturedFrame& captured) {
  const auto parsed = parseSvFrame(frame);
  if (!parsed) return false;
  captured.pdu.assign(parsed->pdu.begin(), parsed->pdu.end());
  formatMacInto(parsed->dstMac, captured.dstMac);
  formatMacInto(parsed->srcMac, captured.srcMac);
  captured.vlanId = parsed->vlanId;
  captured.receivedAt = receivedAt;
  return true;
}

}  // namespace goosestack
