#include "websocket/websocket.h"

#include <string>

namespace tarnlink {
namespace {

// The base has no virtual destructor, and needs none: categories are never deleted through it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class WebSocketCategory final : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "tarnlink.websocket"; }

  std::string message(int value) const override {
    switch (static_cast<WebSocketError>(value)) {
      case WebSocketError::sendQueueFull:
        return "send queue is full: the client does not read";
      case WebSocketError::handshakeTimeout:
        return "handshake was not finished in time";
      case WebSocketError::idleTimeout:
        return "connection was silent for too long";
      case WebSocketError::originNotAllowed:
        return "web pages of its origin are not allowed (see --allow-origin)";
      case WebSocketError::hostNotAllowed:
        return "a web page reached this computer under a name that is not allowed (see "
               "--allow-host)";
      case WebSocketError::tooManyClients:
        return "there are as many clients as are allowed";
      case WebSocketError::notAdmitted:
        return "no pairing code came in time";
      case WebSocketError::peerClosed:
        return "the client has closed the connection";
      case WebSocketError::madeRoom:
        return "its place went to a newcomer before a pairing code came";
    }
    return "unknown WebSocket error";
  }
};
#pragma GCC diagnostic pop

}  // namespace

boost::system::error_code make_error_code(WebSocketError error) {
  static const WebSocketCategory category;
  return {static_cast<int>(error), category};
}

}  // namespace tarnlink
