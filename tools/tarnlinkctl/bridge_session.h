// The bridge's client as tarnlinkctl uses it: what goes wrong is said in words.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "client/bridge_client.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Why a command ends without success, for people.
struct CtlError {
  CtlExit exit;
  std::string text;
};
template <class T>
using CtlResult = boost::system::result<T, CtlError>;

/// What an "error" event means to the user.
CtlError errorOf(const BridgeEvent& event);

/// Blocking; one thread. The operations are BridgeClient's.
class BridgeSession {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = BridgeClient::Handler;

  static CtlResult<BridgeSession> connect(const CtlOptions& options);

  /// Leaves the answer to next(). A text that is not UTF-8 is bad usage.
  CtlResult<void> send(BridgeClient::Command command);

  /// The next event; nothing when none came within the time.
  CtlResult<std::optional<BridgeEvent>> next(std::chrono::milliseconds wait);

  /// The answer; an "error" event is an error here.
  CtlResult<BridgeEvent> ask(
      BridgeClient::Command command, std::string_view name,
      const Handler& onOther = [](const BridgeEvent&) {});

  /// Sends the code; the answer's event when the bridge takes it.
  CtlResult<BridgeEvent> authenticate(std::string_view code);

  void close() { client_.close(); }

 private:
  BridgeSession(BridgeClient client, const CtlOptions& options);
  CtlError failure(const boost::system::error_code& error) const;
  CtlResult<BridgeEvent> answerOf(BridgeClient::Result<BridgeEvent> answer) const;

  BridgeClient client_;
  std::string address_;
  std::chrono::milliseconds timeout_;
};

/// "host:port", as people read it and as codes are remembered.
std::string bridgeAddress(const CtlOptions& options);

}  // namespace tarnlink
