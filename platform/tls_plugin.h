// The border between the program and its TLS plug-in, which alone needs OpenSSL: loading that
// library takes a third of the daemon's start and two megabytes, so it is loaded when asked for.
#pragma once

#include <string>

namespace tarnlink {

/// Nothing but descriptors and texts crosses the border: the plug-in has an event loop and a thread
/// of its own. Any thread may call.
class TlsPumps {
 public:
  /// Ends what is under way, and the thread.
  virtual ~TlsPumps() = default;

  /// Takes over an accepted TCP socket. Gives one end of a local socket pair, the caller's to
  /// close, or a negative errno; then the socket is closed.
  virtual int pump(int socket) = 0;
};

/// Null with an error where the files (PEM) are of no use.
using MakeTlsPumps = TlsPumps* (*)(const char* certificate, const char* key, std::string& error);
inline constexpr const char* kMakeTlsPumps = "tarnlinkMakeTlsPumps";

}  // namespace tarnlink
