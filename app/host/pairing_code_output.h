// What "tarnlinkd --show-pairing-code" prints.
#pragma once

#include "app/host/daemon_options.h"

namespace tarnlink {

/// The code that the bridge with these preferences asks for, on standard output; returns the exit
/// code. A code that no bridge would know is not printed: one that could not be stored, or, unless
/// the preferences were named, this user's own while the packaged service runs. Standard error then
/// says why, and how the service's code is printed.
int printPairingCode(const DaemonOptions& options);

}  // namespace tarnlink
