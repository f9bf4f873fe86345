// A plain WebSocket client (RFC 6455) for command-line tools, tests and benches.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/system/result.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "websocket/websocket.h"

namespace tarnlink {

/// Outcomes that are no system errors. All others are the system's, the resolver's or the
/// WebSocket library's.
enum class WebSocketClientError {
  /// The time given ran out.
  timedOut = 1,
  /// The peer ended the connection, with a close frame or without; see closeCode().
  closed,
  /// The server answered the upgrade with HTTP status 503: it takes no more clients at present.
  full,
  /// The server answered the upgrade with another status than 101.
  declined,
};
boost::system::error_code make_error_code(WebSocketClientError error);

/// Every operation blocks its caller; one thread at a time. Moved-from objects can only be
/// destroyed. Destruction closes the socket without a close frame.
class WebSocketClient {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kDefaultTimeout{5'000};

  /// The name may be a host name or an address of either family. On failure everything has been
  /// closed.
  static boost::system::result<WebSocketClient> connect(const std::string& host, std::uint16_t port,
                                                        Milliseconds timeout = kDefaultTimeout);

  /// One text message, which must be UTF-8. After a failure (time-out included) the connection is
  /// of no use any more.
  boost::system::result<void> sendText(std::string_view text,
                                       Milliseconds timeout = kDefaultTimeout);

  /// The next complete message. A time-out loses nothing: a message that is on its way is returned
  /// by a later call. Pings are answered during calls only.
  boost::system::result<WebSocketMessage> receive(Milliseconds timeout = kDefaultTimeout);

  /// Sends a close frame with the code and waits for the peer's answer; the socket is closed in any
  /// case.
  boost::system::result<void> close(std::uint16_t code = 1000,
                                    Milliseconds timeout = Milliseconds(1'000));

  /// The code of the peer's close frame: 0 when it had none, or while there was no frame.
  std::uint16_t closeCode() const;

  /// The socket, for an event loop that waits for what receive() will take. Once it is readable,
  /// receive() must be called until it times out.
  int descriptor() const;

  WebSocketClient(WebSocketClient&&) noexcept;
  WebSocketClient& operator=(WebSocketClient&&) noexcept;
  ~WebSocketClient();

 private:
  struct Impl;
  explicit WebSocketClient(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarnlink

template <>
struct boost::system::is_error_code_enum<tarnlink::WebSocketClientError> : std::true_type {};
