// A protection device and merging unit of a feeder bay, as far as a process bus shows them.
#pragma once

#include <ostream>
#include <string>

#include "tools/tarnlink_ied/cues.h"
#include "tools/tarnlink_ied/frame_sink.h"
#include "tools/tarnlink_ied/options.h"

namespace tarnlink {

/// Sends, and listens, as the options say, until `cues` ends it, the count is reached, or the
/// interface is lost, which is a failure. What happens goes to `out`, a flushed line each; the last
/// one says how many frames were sent. Blocks; works on threads of its own beside the caller's.
IedResult<void> simulateIed(const std::string& interface, const SimulationOptions& options,
                            OperatorCues& cues, std::ostream& out);

}  // namespace tarnlink
