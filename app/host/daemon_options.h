// The command line of tarnlinkd.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <variant>

#include "websocket/websocket.h"

namespace CLI {
class App;
}

namespace tarnlink {

struct DaemonOptions {
  std::uint16_t port = 8765;
  std::string interface;  ///< Active interface for this run; empty: the stored one.
  std::filesystem::path preferences;
  bool arePreferencesGiven = false;  ///< On the command line; else they are this user's.
  bool advertise = true;
  bool lowLatency = false;
  bool showPairingCode = false;
  WebSocketAccess access;
  std::filesystem::path tlsCertificate;  ///< With tlsKey: TLS alone is served. Empty: none is.
  std::filesystem::path tlsKey;
  bool authDelay = false;        ///< Slow down wrong pairing codes.
  bool untilInputEnds = false;   ///< Stop when standard input ends, as when its writer has ended.
  bool readsOwnerToken = false;  ///< The first line of standard input becomes ownerToken.
  std::string ownerToken;        ///< See BridgePorts.
};

/// The program is to end at once: after --help and --version (0), or on bad usage (2). What there
/// was to say has been written.
struct ExitCode {
  int value;
};
inline constexpr int kExitUsage = 2;

/// Adds the options that say how and for whom the bridge serves; they hold wherever it runs.
void addServiceOptions(CLI::App& app, DaemonOptions& options);

std::variant<DaemonOptions, ExitCode> parseDaemonOptions(int argc, const char* const* argv);

}  // namespace tarnlink
