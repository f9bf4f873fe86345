#include "tools/tarnlinkctl/bridge_session.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "tools/common/printing.h"
#include "tools/tarnlinkctl/advice.h"

namespace tarnlink {
namespace {

// The bridge's code for commands before authentication.
constexpr std::int64_t kNotAuthenticated = 7;

std::string seconds(std::chrono::milliseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

}  // namespace

std::string bridgeAddress(const CtlOptions& options) {
  const bool isIpv6 = options.host.find(':') != std::string::npos;
  return (isIpv6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

CtlError errorOf(const BridgeEvent& event) {
  const auto* member = findString(event.members, "error");
  const auto* reason = findString(event.members, "reason");
  const auto code = findInteger(event.members, "code").value_or(0);
  const auto& message = member ? *member : event.text;
  auto text =
      "the bridge answers: " + printableLines(message) + " (code " + std::to_string(code) + ")";
  if (reason && message.find(*reason) == message.npos) text += ": " + printableLines(*reason);
  return {code == kNotAuthenticated ? CtlExit::authentication : CtlExit::refused,
          text + adviceOnRefusal(message)};
}

CtlResult<BridgeSession> BridgeSession::connect(const CtlOptions& options) {
  const std::vector<std::string> host{options.host};
  auto client = BridgeClient::connect(options.addresses.empty() ? host : options.addresses,
                                      options.port, options.timeout);
  if (client) return BridgeSession(std::move(*client), options);
  return CtlError{CtlExit::connection, "no bridge at " + bridgeAddress(options) + ": " +
                                           client.error().message() +
                                           adviceOnConnecting(client.error())};
}

BridgeSession::BridgeSession(BridgeClient client, const CtlOptions& options)
    : client_(std::move(client)), address_(bridgeAddress(options)), timeout_(options.timeout) {}

CtlError BridgeSession::failure(const boost::system::error_code& error) const {
  if (error == boost::system::errc::illegal_byte_sequence) {
    return {CtlExit::usage, "an argument is not UTF-8"};
  }
  if (error == WebSocketClientError::timedOut) {
    return {CtlExit::connection,
            "no answer from the bridge at " + address_ + " within " + seconds(timeout_) +
                "\n  It may be waiting for a person, or for others who try codes: --timeout gives "
                "it longer."};
  }
  auto text = "connection to " + address_ + " lost: " + error.message();
  if (client_.closeCode() != 0) text += " (close code " + std::to_string(client_.closeCode()) + ")";
  return {CtlExit::connection,
          text + "\n  It has ended, or dropped this client: its log says why."};
}

CtlResult<void> BridgeSession::send(BridgeClient::Command command) {
  if (const auto sent = client_.send(std::move(command)); !sent) return failure(sent.error());
  return {};
}

CtlResult<std::optional<BridgeEvent>> BridgeSession::next(std::chrono::milliseconds wait) {
  auto event = client_.next(wait);
  if (event) return std::optional(std::move(*event));
  if (event.error() == WebSocketClientError::timedOut) return std::optional<BridgeEvent>();
  return failure(event.error());
}

CtlResult<BridgeEvent> BridgeSession::answerOf(BridgeClient::Result<BridgeEvent> answer) const {
  if (!answer) return failure(answer.error());
  if (answer->name == "error") return errorOf(*answer);
  return std::move(*answer);
}

CtlResult<BridgeEvent> BridgeSession::ask(BridgeClient::Command command, std::string_view name,
                                          const Handler& onOther) {
  return answerOf(client_.ask(std::move(command), name, onOther));
}

CtlResult<BridgeEvent> BridgeSession::authenticate(std::string_view code) {
  auto result = answerOf(client_.authenticate(code));
  if (result && !findBoolean(result->members, "ok").value_or(false)) {
    return CtlError{CtlExit::authentication,
                    "the bridge at " + address_ +
                        " does not accept the pairing code\n  It may have a new one. 'tarnlinkd "
                        "--show-pairing-code' prints it there; 'tarnlinkctl pair CODE' remembers "
                        "it here."};
  }
  return result;
}

}  // namespace tarnlink
