#include "goosestack/sv_frame.h"

#include "goosestack/ethernet_frame.h"

namespace goosestack {

std::optional<ParsedSvFrame> parseSvFrame(ByteView frame) {
  const auto parsed = EthernetFrame::parse(frame, kEtherTypeSv);
  if (!parsed) return std::nullopt;
  return ParsedSvFrame{parsed->dstMac, parsed->srcMac, parsed->vlanId, parsed->payload};
}

Bytes buildSvFrame(ByteView dstMac, ByteView srcMac, std::uint16_t vlanId,
                   std::uint8_t vlanPriority, ByteView pdu) {
  return EthernetFrame::build(dstMac, srcMac, vlanId, vlanPriority, pdu, kEtherTypeSv);
}

}  // namespace goosestack
