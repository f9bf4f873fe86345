#include "app/host/bridge_client.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/websocket_client.h"
#include "server/json_value.h"
#include "server/json_writer.h"

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
template <class T>
using Result = boost::system::result<T, std::string>;

constexpr milliseconds kTimeLimit{5'000};  // For the whole conversation.
constexpr const char* kThisMachine = "127.0.0.1";

/// A conversation with one deadline.
class Conversation {
 public:
  static Result<Conversation> begin(std::uint16_t port) {
    auto client = WebSocketClient::connect(kThisMachine, port, kTimeLimit);
    if (!client) return client.error().message();
    return Conversation(std::move(*client));
  }

  Result<void> send(const char* command, std::string_view key, std::string_view value) {
    JsonWriter text;
    text.literal("{\"cmd\":");
    text.string(command);
    text.literal(",");
    text.string(key);
    text.literal(":");
    text.string(value);
    text.literal("}");
    if (text.failed()) return std::string("not UTF-8");
    if (const auto sent = client_.sendText(text.text(), left()); !sent) {
      return sent.error().message();
    }
    return {};
  }

  /// The next event of the name; others are passed over, an "error" event is the error.
  Result<JsonObject> await(std::string_view name) {
    while (true) {
      const auto message = client_.receive(left());
      if (!message) return message.error().message();
      auto event = parseJsonObject(message->data);
      const auto* what = event ? event->string("event") : nullptr;
      if (what == nullptr) continue;
      if (*what == name) return std::move(*event);
      if (*what != "error") continue;
      const auto* text = event->string("error");
      return text != nullptr ? *text : message->data;
    }
  }

  void close() { (void)client_.close(1000, left()); }

 private:
  explicit Conversation(WebSocketClient client) : client_(std::move(client)) {}

  milliseconds left() const {
    return std::max(std::chrono::ceil<milliseconds>(deadline_ - Clock::now()), milliseconds(0));
  }

  WebSocketClient client_;
  Clock::time_point deadline_ = Clock::now() + kTimeLimit;
};

}  // namespace

Result<void> chooseInterface(std::uint16_t port, const std::string& pairingCode,
                             const std::string& name) {
  auto bridge = Conversation::begin(port);
  if (!bridge) return bridge.error();
  if (auto sent = bridge->send("auth", "token", pairingCode); !sent) return sent.error();
  const auto paired = bridge->await("auth_result");
  if (!paired) return paired.error();
  if (!paired->boolean("ok").value_or(false)) return std::string("wrong pairing code");
  if (auto sent = bridge->send("set_interface", "interface", name); !sent) return sent.error();
  while (true) {
    // Others may choose, and be told, at the same time.
    const auto status = bridge->await("bridge_status");
    if (!status) return status.error();
    const auto* active = status->string("activeInterface");
    if (active != nullptr && *active == name) break;
  }
  bridge->close();
  return {};
}

}  // namespace tarnlink
