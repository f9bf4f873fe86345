#include "stack/goose_message_builder.h"

#include <optional>
#include <string>

namespace goosestack {
namespace {

void formatMacInto(const MacAddress& mac, std::optional<std::string>& text) {
  if (!text) text.emplace();
  goosestack::formatMacInto(mac, *text);
}

}  // namespace

void buildGooseMessage(const ParsedEthernetFrame& frame, GoosePdu& pdu, TimePoint receivedAt,
                       GooseMessage& message) {
  message.appId = pdu.header.appId;
  message.goCBRef.swap(pdu.goCBRef);
  message.dataSet.swap(pdu.datSet);
  message.goId.swap(pdu.goId);
  message.timestamp = pdu.timestamp;
  message.stNum = pdu.stNum;
  message.sqNum = pdu.sqNum;
  message.simulation = pdu.simulation;
  message.needsCommission = pdu.ndsCom;
  message.confRev = pdu.confRev;
  message.timeAllowedToLive = pdu.timeAllowedToLive;
  message.numEntries = pdu.numDatSetEntries;
  message.values.swap(pdu.allData);
  formatMacInto(frame.srcMac, message.srcMac);
  formatMacInto(frame.dstMac, message.dstMac);
  message.vlanId = frame.vlanId;
  message.receivedAt = receivedAt;
}

}  // namespace goosestack
