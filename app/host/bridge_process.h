// Runs the bridge in a process of its own until it is told to stop.
#pragma once

#include "app/host/daemon_options.h"

namespace tarnlink {

/// Serves until SIGTERM or SIGINT, then stops in order; returns the process's exit code. Logs to
/// standard output. Call once, before any thread is started: it gives up privileges.
int runBridgeProcess(DaemonOptions options);

}  // namespace tarnlink
