// The control blocks of a feeder bay's protection and control device.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "goosestack/goose_publish_config.h"
#include "goosestack/time_point.h"

namespace tarnlink {

/// A GOOSE control block whose dataset changes from state to state.
struct ControlBlock {
  goosestack::GoosePublishConfig config;  ///< All but the values.
  /// The dataset in state 0, 1, 2, ... of which the last change was at `changedAt`. Pure.
  std::function<std::vector<goosestack::GooseDataValue>(std::uint32_t state,
                                                        goosestack::TimePoint changedAt)>
      dataset;
};

/// Three control blocks for `interface`: first the breaker's position and trip (tagged, VLAN 100,
/// priority 4), then measurements that hold every type of value, and interlocking. With the
/// standard's transmission pattern.
std::vector<ControlBlock> feederBay(const std::string& interface);

}  // namespace tarnlink
