// A protection and control device of a feeder bay, as far as a process bus shows it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "stack/mac_address.h"
#include "tools/tarnlink_ied/control_block.h"
#include "tools/tarnlink_ied/frame_sink.h"
#include "tools/tarnlink_ied/pacer.h"
#include "tools/tarnlink_ied/replay.h"

namespace tarnlink {

/// Three control blocks: the breaker's position and trip (tagged, VLAN 100, priority 4),
/// measurements that hold every type of value, and interlocking.
/// `interval` is the time between frames of one control block; receivers may call a publication
/// lost after three of them.
std::vector<ControlBlock> feederBay(const MacAddress& source, std::chrono::milliseconds interval);

struct SimulationOptions {
  std::chrono::milliseconds interval{500};
  std::optional<std::uint64_t> count;  ///< End after so many frames were sent.
};

/// Sends one frame of every control block each interval, counted from the start so that errors do
/// not add up; after a stall the intervals that have passed are left out. Returns after `count`
/// frames or when `pacer` says so; fails when the interface is lost.
IedResult<void> simulate(std::vector<ControlBlock> blocks, const SimulationOptions& options,
                         FrameSink& sink, Pacer& pacer, SendReport& report);

}  // namespace tarnlink
