#include "tools/tarnlinkctl/bridge_session.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "server/json_writer.h"
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
  const auto* message = event.members.string("error");
  const auto code = event.members.integer("code").value_or(0);
  return {code == kNotAuthenticated ? CtlExit::authentication : CtlExit::refused,
          "the bridge answers: " + printable(message ? *message : event.text) + " (code " +
              std::to_string(code) + ")"};
}

CtlResult<BridgeSession> BridgeSession::connect(const CtlOptions& options) {
  const auto address = bridgeAddress(options);
  auto client = connectToAny(options);
  if (!client) {
    return CtlError{CtlExit::connection,
                    "no bridge at " + address + ": " + client.error().message()};
  }
  return BridgeSession(std::move(*client), address, options.timeout);
}

BridgeSession::BridgeSession(WebSocketClient client, std::string address,
                             std::chrono::milliseconds timeout)
    : client_(std::move(client)), address_(std::move(address)), timeout_(timeout) {}

CtlError BridgeSession::dropped(const boost::system::error_code& error) const {
  auto text = "connection to " + address_ + " lost: " + error.message();
  if (client_.closeCode() != 0) text += " (close code " + std::to_string(client_.closeCode()) + ")";
  return {CtlExit::connection, text};
}

CtlResult<void> BridgeSession::send(std::string_view command) {
  if (const auto sent = client_.sendText(command, timeout_); !sent) return dropped(sent.error());
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
                  "no answer from the bridge at " + address_ + " within " + seconds(timeout_)};
}

CtlResult<BridgeEvent> BridgeSession::answer(std::initializer_list<std::string_view> names) {
  const auto deadline = Clock::now() + timeout_;
  while (true) {
    auto event = nextBefore(deadline);
    if (!event) return event;
    if (event->name == "error") return errorOf(*event);
    if (std::find(names.begin(), names.end(), event->name) != names.end()) return event;
  }
}

CtlResult<BridgeEvent> BridgeSession::authenticate(std::string_view code) {
  JsonWriter command;
  command.literal(R"({"cmd":"auth","token":)");
  command.string(code);
  command.literal("}");
  if (command.failed()) return CtlError{CtlExit::usage, "the pairing code is not UTF-8"};
  if (const auto sent = send(command.text()); !sent) return sent.error();
  auto result = answer({"auth_result"});
  if (!result) return result.error();
  if (!result->members.boolean("ok").value_or(false)) {
    return CtlError{CtlExit::authentication,
                    "the bridge at " + address_ + " does not accept the pairing code"};
  }
  return result;
}

}  // namespace tarnlink
