// The server's end of one WebSocket connection on Boost.Beast, which is compiled behind this
// header.
#pragma once

#include <memory>
#include <string>

#include "platform/gathered_stream.h"
#include "platform/websocket.h"

namespace tarnlink {

/// What the listener has decided about a connection.
struct Admission {
  std::shared_ptr<const UpgradeRules> rules;
  bool isOneTooMany = false;  ///< The upgrade is refused, whatever it says.
  std::string peer;           ///< See WebSocketConnection::peer().
  /// Among the connections that are counted; dropped with the socket.
  std::shared_ptr<void> place;
  std::shared_ptr<const TlsContext> tls;  ///< Null: none.
};

/// Takes over an accepted socket, whose executor becomes the connection's strand. Dropping the
/// result ends the connection as cancel() does, without a report.
std::shared_ptr<WebSocketConnection> makeWebSocketConnection(GatheredStream::Socket socket,
                                                             const WebSocketLimits& limits,
                                                             Admission admission);

}  // namespace tarnlink
