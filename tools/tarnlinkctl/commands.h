// What tarnlinkctl does.
#pragma once

#include <atomic>
#include <ostream>

#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Carries the command out. Lines for people and scripts go to `out`, each flushed; everything
/// else to `errors`. Setting `interrupted` ends what runs until then within a fraction of a second.
CtlExit runCtl(const CtlOptions& options, std::ostream& out, std::ostream& errors,
               const std::atomic<bool>& interrupted);

/// Subscriptions and repeated sending; nothing else looks at `interrupted`.
bool runsUntilInterrupted(const CtlCommand& command);

}  // namespace tarnlink
