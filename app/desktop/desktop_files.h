// Where the desktop program finds and keeps things.
#pragma once

#include <filesystem>

#include "app/host/bpf_capability_access.h"
#include "goosestack/log_sink.h"

namespace tarnlink {

/// The bridge and its helper: installed in ../libexec/tarnlink, where a package keeps a copy of
/// tarnlinkd that may get a capability without taking it from the service's users; else beside
/// this program. pkexec: the first on PATH.
CapabilityAccessFiles findBridgeFiles(const std::filesystem::path& ownFolder);

/// The bridge to start: that of `files`, unless it is closed to this user, because others have been
/// allowed to run it. Then the one beside this program, which has no capability, and one log line.
std::filesystem::path bridgeForThisUser(const CapabilityAccessFiles& files,
                                        const std::filesystem::path& ownFolder,
                                        const goosestack::LogSink& log);

/// The user's preference file. Where it cannot keep the pairing code, a file of this run: the menu
/// and the bridge, two processes, must agree on the code. One log line says so.
std::filesystem::path usablePreferenceFile(const goosestack::LogSink& log);

}  // namespace tarnlink
