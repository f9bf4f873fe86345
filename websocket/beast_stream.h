// The WebSocket library on one accepted socket: the handshake, messages and control frames of the
// server's end. Boost.Beast is compiled behind this header.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/system/result.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "websocket/connection_stream.h"
#include "websocket/upgrade_request.h"
#include "websocket/websocket.h"

namespace tarnlink {

/// Everything runs on the strand. Its coroutines end before it does.
class BeastStream {
 public:
  /// As ConnectionStream's.
  BeastStream(ConnectionStream::Socket socket, std::size_t queueLimit,
              std::shared_ptr<const TlsContext> tls, ConnectionStream::Owner& owner);
  ~BeastStream();
  BeastStream(const BeastStream&) = delete;
  BeastStream& operator=(const BeastStream&) = delete;

  ConnectionStream& stream();

  /// A longer message ends in close code 1009. Octets.
  void setLongestMessage(std::size_t octets);

  /// Reads the upgrade request and answers it, be it with an upgrade or a refusal. For the rules
  /// see judge().
  boost::asio::awaitable<UpgradeVerdict> upgrade(const UpgradeRules* rules);

  /// The next complete message. An error is final: WebSocketError::peerClosed after a close frame
  /// of the peer's; one of the protocol, for which the library has sent a close frame; the
  /// system's; or bad_frame_payload (errc::illegal_byte_sequence), after which close() is to be
  /// called.
  boost::asio::awaitable<boost::system::result<WebSocketMessage>> readMessage();

  /// The close handshake (RFC 6455, 7.1.2): returns when the peer has answered, or the socket
  /// closed.
  boost::asio::awaitable<void> close(std::uint16_t code);

  /// Returns when the ping has reached the socket.
  boost::asio::awaitable<void> ping();

 private:
  struct Library;
  const std::unique_ptr<Library> library_;
};

}  // namespace tarnlink
