// What tarnlinkctl does.
#pragma once

#include <atomic>
#include <ostream>

#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Carries the command out. Lines for people and scripts go to `out`, each flushed; everything
/// else to `errors`. Setting `interrupted` ends a subscription within a fraction of a second.
CtlExit runCtl(const CtlOptions& options, std::ostream& out, std::ostream& errors,
               const std::atomic<bool>& interrupted);

}  // namespace tarnlink
