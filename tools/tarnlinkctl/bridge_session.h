// One conversation with a bridge: commands out, events in.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "platform/websocket_client.h"
#include "server/json_value.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Why a command ends without success, for people.
struct CtlError {
  CtlExit exit;
  std::string text;
};
template <class T>
using CtlResult = boost::system::result<T, CtlError>;

struct BridgeEvent {
  std::string text;  ///< As it came.
  std::string name;
  JsonObject members;
};

/// What an "error" event means to the user.
CtlError errorOf(const BridgeEvent& event);

/// Blocking; one thread.
class BridgeSession {
 public:
  using Clock = std::chrono::steady_clock;

  static CtlResult<BridgeSession> connect(const CtlOptions& options);

  CtlResult<void> send(std::string_view command);

  /// The next event; nothing when none came within the time.
  CtlResult<std::optional<BridgeEvent>> next(std::chrono::milliseconds wait);

  /// The next event; that none came in time is the error.
  CtlResult<BridgeEvent> nextBefore(Clock::time_point deadline);

  /// The next event of one of the names. Broadcasts that come before it are dropped; an "error"
  /// event is the error.
  CtlResult<BridgeEvent> answer(std::initializer_list<std::string_view> names);

  /// Sends the code; the answer's event when the bridge takes it.
  CtlResult<BridgeEvent> authenticate(std::string_view code);

  void close() { (void)client_.close(); }

 private:
  BridgeSession(WebSocketClient client, std::string address, std::chrono::milliseconds timeout);
  CtlError dropped(const boost::system::error_code& error) const;

  WebSocketClient client_;
  std::string address_;
  std::chrono::milliseconds timeout_;
};

/// "host:port", as people read it and as codes are remembered.
std::string bridgeAddress(const CtlOptions& options);

}  // namespace tarnlink
