// A client of the bridge: commands out, events in.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/json.h"
#include "websocket/websocket_client.h"

namespace tarnlink {

/// One message of the bridge.
struct BridgeEvent {
  std::string text;  ///< As it came.
  std::string name;  ///< Empty when the text is no event of the protocol.
  Json members;
};

/// A conversation with a bridge. Every operation blocks its caller; one thread at a time. Errors
/// are those of WebSocketClient; after any but a time-out of next() and await() the conversation is
/// over. Destruction ends it without a close frame.
///
/// Every command carries a "requestId", and what carries it back is the answer. Older bridges
/// ignore it; there a command has ended when a ping that was sent behind it is answered.
class BridgeClient {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Command = nlohmann::ordered_json;  ///< {"cmd": name, ...}
  using Handler = std::function<void(const BridgeEvent&)>;
  template <class T>
  using Result = boost::system::result<T>;

  static constexpr Milliseconds kDefaultTimeout = WebSocketClient::kDefaultTimeout;

  /// Tries the hosts, names or addresses, in their order until one answers. All of that, and every
  /// later operation, must be done within the timeout.
  static Result<BridgeClient> connect(const std::vector<std::string>& hosts, std::uint16_t port,
                                      Milliseconds timeout = kDefaultTimeout);

  /// Leaves the answer to next(). errc::illegal_byte_sequence when a text in it is not UTF-8; then
  /// nothing was sent.
  Result<void> send(Command command);
  /// One text message as it is, without a "requestId".
  Result<void> sendText(std::string_view text) { return socket_.sendText(text, timeout_); }

  /// The next event; WebSocketClientError::timedOut when none comes within the time.
  Result<BridgeEvent> next(Milliseconds wait);
  /// The next event of that name, others are passed over.
  Result<BridgeEvent> await(std::string_view name, Milliseconds wait = kDefaultTimeout);

  /// Sends the command and waits for the event that answers it, by name where the bridge is an
  /// older one, or for an "error" event: there, also of a command before it. Others on the way go
  /// to `onOther`.
  Result<BridgeEvent> ask(
      Command command, std::string_view name, const Handler& onOther = [](const BridgeEvent&) {});
  /// Sends the code or token; the bridge takes it when the answer's "ok" is true.
  Result<BridgeEvent> authenticate(std::string_view code);

  /// With a close frame; waits a second at most for the bridge's.
  void close();

  /// As WebSocketClient has them.
  std::uint16_t closeCode() const { return socket_.closeCode(); }
  int descriptor() const { return socket_.descriptor(); }

 private:
  using Clock = std::chrono::steady_clock;

  BridgeClient(WebSocketClient socket, Milliseconds timeout);
  Result<BridgeEvent> nextBefore(Clock::time_point deadline);

  WebSocketClient socket_;
  Milliseconds timeout_;
  std::int64_t lastRequest_ = 0;
  bool knowsRequestIds_ = false;  ///< As its answer to "auth" showed.
};

}  // namespace tarnlink
