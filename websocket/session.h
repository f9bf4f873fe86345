// The server's end of one WebSocket connection.
#pragma once

#include <memory>
#include <string>

#include "websocket/client_places.h"
#include "websocket/connection_stream.h"
#include "websocket/upgrade_rules.h"
#include "websocket/websocket.h"

namespace tarnlink {

/// What the listener has decided about a connection.
struct Admission {
  std::shared_ptr<const UpgradeRules> rules;
  std::string peer;  ///< See WebSocketConnection::peer().
  /// Among the connections that are counted; dropped with the socket. Null for one too many, whose
  /// upgrade is refused, whatever it says.
  std::shared_ptr<ClientPlaces::Place> place;
  /// Held instead by one too many.
  std::shared_ptr<void> refusal;
  std::shared_ptr<const TlsContext> tls;  ///< Null: none.
};

/// Takes over an accepted socket, whose executor becomes the connection's strand. Dropping the
/// result ends the connection as cancel() does, without a report.
std::shared_ptr<WebSocketConnection> makeSession(ConnectionStream::Socket socket,
                                                 const WebSocketLimits& limits,
                                                 Admission admission);

}  // namespace tarnlink
