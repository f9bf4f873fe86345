#include "stack/goose_frame_decoder.h"

#include <optional>
#include <string>

#include "goosestack/ethernet_frame.h"

namespace goosestack {
namespace {

void formatMacInto(const MacAddress& mac, std::optional<std::string>& text) {
  if (!text) text.emplace();
  goosestack::formatMacInto(mac, *text);
}

}  // namespace

bool GooseFrameDecoder::decode(ByteView frame, TimePoint receivedAt, GooseMessage& message) {
  const auto envelope = EthernetFrame::parse(frame);
  if (!envelope || !GoosePdu::parseInto(envelope->payload, pdu_)) return false;
  message.appId = pdu_.header.appId;
  message.goCBRef.swap(pdu_.goCBRef);
  message.dataSet.swap(pdu_.datSet);
  message.goId.swap(pdu_.goId);
  message.timestamp = pdu_.timestamp;
  message.stNum = pdu_.stNum;
  message.sqNum = pdu_.sqNum;
  message.simulation = pdu_.simulation;
  message.needsCommission = pdu_.ndsCom;
  message.confRev = pdu_.confRev;
  message.timeAllowedToLive = pdu_.timeAllowedToLive;
  message.numEntries = pdu_.numDatSetEntries;
  message.values.swap(pdu_.allData);
  formatMacInto(envelope->srcMac, message.srcMac);
  formatMacInto(envelope->dstMac, message.dstMac);
  message.vlanId = envelope->vlanId;
  message.receivedAt = receivedAt;
  return true;
}

}  // namespace goosestack
