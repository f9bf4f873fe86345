// TLS (RFC 8446, RFC 5246) in front of a listener's connections.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/result.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/gathered_stream.h"

namespace tarnlink {

/// Takes the TLS off a connection: what is inside comes and goes through a local socket pair, so
/// that the road of plain connections stays as it is. Costs two more descriptors and two copies,
/// and all connections together a thread.
class TlsTerminator {
 public:
  virtual ~TlsTerminator() = default;

  /// The inside of an accepted socket, on the same executor, which must be a strand. Returns at
  /// once: the handshake, whose time the owner of the result limits, comes while it waits. A failed
  /// one ends the inside. When the inside is closed the outside ends within seconds, too.
  virtual boost::system::result<GatheredStream::Socket> terminate(
      boost::asio::ip::tcp::socket socket) const = 0;
};

/// Reads a certificate with its chain and its key (PEM; without a password). The error names the
/// file and what is wrong with it. TLS 1.2 and 1.3. The plug-in that knows TLS is looked for where
/// it is installed, and beside the program.
boost::system::result<std::shared_ptr<const TlsTerminator>, std::string> loadTlsTerminator(
    const std::filesystem::path& certificate, const std::filesystem::path& key);

}  // namespace tarnlink
