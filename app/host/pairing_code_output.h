// The pairing code as people get to see it: what "tarnlinkd --show-pairing-code" prints.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "app/host/daemon_options.h"

namespace tarnlink {

/// The code in these preferences, made where there is none; nothing where none can be stored, as
/// `log` then says. Such a code would be one that nobody gets to see.
std::optional<std::string> storedPairingCode(const std::filesystem::path& preferences,
                                             const std::function<void(std::string_view)>& log);

/// The code that the bridge with these preferences asks for, on standard output; returns the exit
/// code. A code that no bridge would know is not printed: one that could not be stored, or, unless
/// the preferences were named, this user's own while the packaged service runs. Standard error then
/// says why, and how the service's code is printed.
int printPairingCode(const DaemonOptions& options);

}  // namespace tarnlink
