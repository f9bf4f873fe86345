// Port to the process's privileges: what it keeps of them, and whether it may capture.
#pragma once

#include <boost/system/result.hpp>
#include <filesystem>

namespace tarnlink {

/// True when the process may open raw link-layer sockets (CAP_NET_RAW is effective).
bool hasCaptureCapability();
/// The same for another process; false for one that is gone.
bool hasCaptureCapability(int process);

/// True when the program, started by this process, would hold CAP_NET_RAW: the process passes its
/// own on, or the file has it, the user may execute the file, and nothing keeps the kernel from
/// honouring it (capabilities(7)).
bool givesCaptureCapability(const std::filesystem::path& program);

/// True when the process, and the tools that it starts, may set up links (CAP_NET_ADMIN is
/// effective).
bool hasLinkSetupCapability();

/// Gives up every privilege but those for raw sockets (CAP_NET_RAW) and for setting up links
/// (CAP_NET_ADMIN), each kept only where it was permitted. Programs started later inherit
/// CAP_NET_ADMIN alone: the link tool needs it. Privileges of files that are not the user's own go
/// too, also for root. Call once, before any thread starts: capabilities are per thread.
boost::system::result<void> keepOnlyCaptureCapabilities();

}  // namespace tarnlink
