#include "tools/tarnlinkctl/bridge_session.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "tools/tarnlinkctl/advice.h"
#include "tools/tarnlinkctl/printing.h"

namespace tarnlink {
namespace {

// The bridge's code for commands before authentication.
constexpr std::int64_t kNotAuthenticated = 7;

std::string seconds(std::chrono::milliseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

boost::system::result<WebSocketClient> connectToAny(const CtlOptions& options) {
  if (options.addresses.empty()) {
    return WebSocketClient::connect(options.host, options.port, options.timeout);
  }
  const auto share = options.timeout / options.addresses.size();
  for (std::size_t i = 0;; ++i) {
    auto client = WebSocketClient::connect(options.addresses[i], options.port, share);
    if (client || i + 1 == options.addresses.size()) return client;
  }
}

}  // namespace

std::string bridgeAddress(const CtlOptions& options) {
  const bool isIpv6 = options.host.find(':') != std::string::npos;
  return (isIpv6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

CtlError errorOf(const BridgeEvent& event) {
  const auto* member = event.members.string("error");
  const auto* reason = event.members.string("reason");
  const auto code = event.members.integer("code").value_or(0);
  const auto& message = member ? *member : event.text;
  auto text =
      "the bridge answers: " + printableLines(message) + " (code " + std::to_string(code) + ")";
  if (reason && message.find(*reason) == message.npos) text += ": " + printableLines(*reason);
  return {code == kNotAuthenticated ? CtlExit::authentication : CtlExit::refused,
          text + adviceOnRefusal(message)};
}

CtlResult<BridgeSession> BridgeSession::connect(const CtlOptions& options) {
  const auto address = bridgeAddress(options);
  auto client = connectToAny(options);
  if (!client) {
    return CtlError{CtlExit::connection, "no bridge at " + address + ": " +
                                             client.error().message() +
                                             adviceOnConnecting(client.error())};
  }
  return BridgeSession(std::move(*client), address, options.timeout);
}

BridgeSession::BridgeSession(WebSocketClient client, std::string address,
                             std::chrono::milliseconds timeout)
    : client_(std::move(client)), address_(std::move(address)), timeout_(timeout) {}

CtlError BridgeSession::dropped(const boost::system::error_code& error) const {
  auto text = "connection to " + address_ + " lost: " + error.message();
  if (client_.closeCode() != 0) text += " (close code " + std::to_string(client_.closeCode()) + ")";
  return {CtlExit::connection,
          text + "\n  It has ended, or dropped this client: its log says why."};
}

CtlResult<void> BridgeSession::send(CommandText command) {
  const auto text = command.integer("requestId", ++lastRequest_).end();
  if (!text) return CtlError{CtlExit::usage, "an argument is not UTF-8"};
  if (const auto sent = client_.sendText(*text, timeout_); !sent) return dropped(sent.error());
  return {};
}

CtlResult<std::optional<BridgeEvent>> BridgeSession::next(std::chrono::milliseconds wait) {
  auto message = client_.receive(wait);
  if (!message) {
    if (message.error() == WebSocketClientError::timedOut) return std::optional<BridgeEvent>();
    return dropped(message.error());
  }
  BridgeEvent event{std::move(message->data), "", {}};
  if (auto members = parseJsonObject(event.text)) event.members = std::move(*members);
  if (const auto* name = event.members.string("event")) event.name = *name;
  return std::optional(std::move(event));
}

CtlResult<BridgeEvent> BridgeSession::nextBefore(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  auto event = next(std::max(left, std::chrono::milliseconds(0)));
  if (!event) return event.error();
  if (*event) return std::move(**event);
  return CtlError{CtlExit::connection,
                  "no answer from the bridge at " + address_ + " within " + seconds(timeout_) +
                      "\n  It may be waiting for a person, or for others who try codes: "
                      "--timeout gives it longer."};
}

CtlResult<BridgeEvent> BridgeSession::ask(CommandText command, std::string_view name,
                                          const Handler& onOther) {
  const auto deadline = Clock::now() + timeout_;
  if (const auto sent = send(std::move(command)); !sent) return sent.error();
  const auto request = lastRequest_;
  // This one is broadcast, too, for other clients' doings.
  const bool pingsBehind = !knowsRequestIds_ && name == "bridge_status";
  if (pingsBehind) {
    if (const auto sent = send(CommandText("ping")); !sent) return sent.error();
  }
  BridgeEvent answer;
  while (true) {
    auto event = nextBefore(deadline);
    if (!event) return event;
    const auto answered = event->members.integer("requestId");
    if (event->name == "error" && (answered || !knowsRequestIds_)) return errorOf(*event);
    if (answered == request) return event;
    if (pingsBehind && event->name == "pong") return answer;
    if (!knowsRequestIds_ && event->name == name) {
      if (!pingsBehind) return event;
      answer = std::move(*event);
    } else {
      onOther(*event);
    }
  }
}

CtlResult<BridgeEvent> BridgeSession::authenticate(std::string_view code) {
  auto result = ask(std::move(CommandText("auth").text("token", std::string(code))), "auth_result");
  if (!result) return result;
  if (!result->members.boolean("ok").value_or(false)) {
    return CtlError{CtlExit::authentication,
                    "the bridge at " + address_ +
                        " does not accept the pairing code\n  It may have a new one. 'tarnlinkd "
                        "--show-pairing-code' prints it there; 'tarnlinkctl pair CODE' remembers "
                        "it here."};
  }
  knowsRequestIds_ = result->members.find("requestId") != nullptr;
  return result;
}

}  // namespace tarnlink
