// What a publisher is asked to send: one GOOSE publication and its schedule.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "goosestack/goose_data_value.h"
#include "goosestack/mac_address.h"

namespace goosestack {

/// The sending schedule after a state change (IEC 61850-8-1: retransmission at growing
/// intervals, then a steady heartbeat). All times in milliseconds.
struct RetransmissionProfile {
  std::vector<int> intervals;  ///< Between consecutive retransmissions.
  int heartbeatInterval = 0;   ///< Period, counted from the state change; 0 or less means none.

  bool operator==(const RetransmissionProfile&) const = default;

  static const RetransmissionProfile& standard();
  static const RetransmissionProfile& fast();
  static const RetransmissionProfile& single();
};

/// Has no defaults of its own: those that clients rely on belong to the JSON codec.
struct GoosePublishConfig {
  std::uint16_t appId;
  std::string goCBRef;
  std::string dataSetRef;
  std::string goId;
  std::uint32_t confRev;
  std::uint16_t vlanId;       ///< 12 bits used; 0 means untagged.
  std::uint8_t vlanPriority;  ///< 3 bits used.
  bool vlanCfi;
  bool vlanTagged;
  MacAddress dstMac;
  std::optional<MacAddress> srcMacOverride;
  RetransmissionProfile retransmissionProfile;
  std::vector<GooseDataValue> values;
  std::string interface;
  std::uint32_t timeAllowedToLive;  ///< Milliseconds.
  bool simulation;
  bool ndsCom;
  std::uint32_t initialStNum;  ///< 0: count on from the publisher's own number.
  std::uint32_t initialSqNum;
  bool lockStNum;
  bool lockSqNum;

  bool operator==(const GoosePublishConfig&) const = default;
};

}  // namespace goosestack
