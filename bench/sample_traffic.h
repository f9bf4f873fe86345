// The traffic that the benches measure with: what one feeder's protection sends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"

namespace tarnlink::bench {

/// Unix seconds of every time in the samples.
inline constexpr double kSampleTime = 1715933730.125;

/// A GOOSE frame of eight values; its event text has kSampleEventSize octets.
inline constexpr std::size_t kSampleEventSize = 735;
inline goosestack::Bytes eightValueFrame() {
  using Value = goosestack::GooseDataValue;
  goosestack::GoosePdu pdu;
  pdu.allData = {
      Value::boolean(true),
      Value::boolean(false),
      Value::bitString({false, true}),
      Value::integer(-12345),
      Value::unsignedInteger(98765),
      Value::floatingPoint(49.98F),
      Value::visibleString("closed"),
      Value::utcTime(goosestack::timeFromUnixSeconds(kSampleTime)),
  };
  pdu.header.appId = 0x1000;
  pdu.goCBRef = "IED1LD0/LLN0$GO$gcbEvents";
  pdu.timeAllowedToLive = 2000;
  pdu.datSet = "IED1LD0/LLN0$dsEvents";
  pdu.goId = "gcbEvents";
  pdu.stNum = 17;
  pdu.sqNum = 4711;
  pdu.confRev = 1;
  pdu.timestamp = goosestack::timeFromUnixSeconds(kSampleTime);
  constexpr goosestack::MacAddress kDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  constexpr goosestack::MacAddress kSource{0x02, 0, 0, 0, 0, 0x01};
  return goosestack::EthernetFrame::build(kDestination, kSource, 0, 0,
                                          goosestack::GoosePdu::encode(pdu).value());
}

}  // namespace tarnlink::bench
