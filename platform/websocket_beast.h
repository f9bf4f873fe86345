// The server's end of one WebSocket connection on Boost.Beast, which is compiled behind this
// header.
#pragma once

#include <memory>

#include "platform/gathered_stream.h"
#include "platform/websocket.h"

namespace tarnlink {

/// Takes over an accepted socket, whose executor becomes the connection's strand. Dropping the
/// result ends the connection as cancel() does, without a report.
std::shared_ptr<WebSocketConnection> makeWebSocketConnection(GatheredStream::Socket socket,
                                                             const WebSocketLimits& limits);

}  // namespace tarnlink
