// The control blocks of a feeder bay's protection and control device.
#pragma once

#include <string>
#include <vector>

#include "tools/tarnlink_ied/control_block.h"

namespace tarnlink {

/// Three control blocks for `interface`: first the breaker's position and trip (tagged, VLAN 100,
/// priority 4), then measurements that hold every type of value, and interlocking. With the
/// standard's transmission pattern.
std::vector<ControlBlock> feederBay(const std::string& interface);

}  // namespace tarnlink
