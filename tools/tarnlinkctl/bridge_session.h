// One conversation with a bridge: commands out, events in.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/json_value.h"
#include "tools/tarnlinkctl/command_text.h"
#include "tools/tarnlinkctl/options.h"
#include "websocket/websocket_client.h"

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
///
/// Every command carries a "requestId", and what carries it back is the answer. Older
/// bridges ignore it; there a command has ended when a ping that was sent behind it is answered.
class BridgeSession {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<void(const BridgeEvent&)>;

  static CtlResult<BridgeSession> connect(const CtlOptions& options);

  /// Leaves the answer to next(). A text that is not UTF-8 is bad usage.
  CtlResult<void> send(CommandText command);

  /// The next event; nothing when none came within the time.
  CtlResult<std::optional<BridgeEvent>> next(std::chrono::milliseconds wait);

  /// Sends the command and waits for the event that answers it, by name where the bridge is an
  /// older one, or for an "error" event, also of a command before it. Others on the way go to
  /// `onOther`.
  CtlResult<BridgeEvent> ask(
      CommandText command, std::string_view name,
      const Handler& onOther = [](const BridgeEvent&) {});

  /// Sends the code; the answer's event when the bridge takes it.
  CtlResult<BridgeEvent> authenticate(std::string_view code);

  void close() { (void)client_.close(); }

 private:
  BridgeSession(WebSocketClient client, std::string address, std::chrono::milliseconds timeout);
  CtlError dropped(const boost::system::error_code& error) const;
  CtlResult<BridgeEvent> nextBefore(Clock::time_point deadline);

  WebSocketClient client_;
  std::string address_;
  std::chrono::milliseconds timeout_;
  std::int64_t lastRequest_ = 0;
  bool knowsRequestIds_ = false;  ///< As its answer to "auth" showed.
};

/// "host:port", as people read it and as codes are remembered.
std::string bridgeAddress(const CtlOptions& options);

}  // namespace tarnlink
