#include "client/bridge_client.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tarnlink {
namespace {

constexpr std::chrono::milliseconds kCloseTimeout{1'000};

}  // namespace

BridgeClient::BridgeClient(WebSocketClient socket, Milliseconds timeout)
    : socket_(std::move(socket)), timeout_(timeout) {}

auto BridgeClient::connect(const std::vector<std::string>& hosts, std::uint16_t port,
                           Milliseconds timeout) -> Result<BridgeClient> {
  const auto share = timeout / std::max<std::size_t>(hosts.size(), 1);
  boost::system::error_code last = WebSocketClientError::timedOut;
  for (const auto& host : hosts) {
    auto socket = WebSocketClient::connect(host, port, share);
    if (socket) return BridgeClient(std::move(*socket), timeout);
    last = socket.error();
  }
  return last;
}

auto BridgeClient::send(Command command) -> Result<void> {
  command["requestId"] = ++lastRequest_;
  try {
    return sendText(command.dump());
  } catch (const Command::type_error&) {
    return make_error_code(boost::system::errc::illegal_byte_sequence);
  }
}

auto BridgeClient::next(Milliseconds wait) -> Result<BridgeEvent> {
  auto message = socket_.receive(wait);
  if (!message) return message.error();
  BridgeEvent event{std::move(message->data), "", {}};
  if (auto members = parseJson(event.text)) event.members = std::move(*members);
  if (const auto* name = findString(event.members, "event")) event.name = *name;
  return event;
}

auto BridgeClient::nextBefore(Clock::time_point deadline) -> Result<BridgeEvent> {
  return next(std::max(std::chrono::ceil<Milliseconds>(deadline - Clock::now()), Milliseconds(0)));
}

auto BridgeClient::await(std::string_view name, Milliseconds wait) -> Result<BridgeEvent> {
  const auto deadline = Clock::now() + wait;
  while (true) {
    auto event = nextBefore(deadline);
    if (!event || event->name == name) return event;
  }
}

auto BridgeClient::ask(Command command, std::string_view name, const Handler& onOther)
    -> Result<BridgeEvent> {
  const auto deadline = Clock::now() + timeout_;
  if (const auto sent = send(std::move(command)); !sent) return sent.error();
  const auto request = lastRequest_;
  // This one is broadcast, too, for other clients' doings.
  const bool pingsBehind = !knowsRequestIds_ && name == "bridge_status";
  if (pingsBehind) {
    if (const auto sent = send({{"cmd", "ping"}}); !sent) return sent.error();
  }
  BridgeEvent answer;
  while (true) {
    auto event = nextBefore(deadline);
    if (!event) return event;
    const auto answered = findInteger(event->members, "requestId");
    if (event->name == "error" && (answered || !knowsRequestIds_)) return event;
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

auto BridgeClient::authenticate(std::string_view code) -> Result<BridgeEvent> {
  auto answer = ask({{"cmd", "auth"}, {"token", code}}, "auth_result");
  if (answer) knowsRequestIds_ = findMember(answer->members, "requestId") != nullptr;
  return answer;
}

void BridgeClient::close() {
  (void)socket_.close(1000, std::min(timeout_, kCloseTimeout));
}

}  // namespace tarnlink
