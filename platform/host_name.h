// Port to the name that users know this computer by.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace tarnlink {

/// How long the system's name service may take to answer.
inline constexpr std::chrono::milliseconds kHostNameLimit{500};

/// The name given for people to read, else the host name; nothing where there is neither. It is
/// valid UTF-8 and not empty. `machineInfo` is machine-info(5). Blocks up to `limit`; safe from any
/// thread.
std::optional<std::string> userVisibleHostName(
    std::chrono::milliseconds limit = kHostNameLimit,
    const std::filesystem::path& machineInfo = "/etc/machine-info");

}  // namespace tarnlink
