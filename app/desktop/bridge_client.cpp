#include "app/desktop/bridge_client.h"

#include <algorithm>
#include <utility>

#include "protocol/json_value.h"
#include "protocol/json_writer.h"

namespace tarnlink {
namespace {

using std::chrono::milliseconds;

// From one try to the next, doubled each time. A bridge listens some 20 ms after its start.
constexpr milliseconds kFirstDelay{20};
constexpr milliseconds kMaxDelay{1'000};
// On this computer both take less than a millisecond; the thread that draws waits no longer.
constexpr milliseconds kConnectTime{200};
constexpr milliseconds kSendTime{200};
constexpr milliseconds kCloseTime{200};
// To be let in.
constexpr milliseconds kAdmissionTime{5'000};
// A receive() in which a message that is on its way arrives.
constexpr milliseconds kReadTime{1};

}  // namespace

BridgeClient::BridgeClient(Handlers handlers) : handlers_(std::move(handlers)) {
  timer_.setSingleShot(true);
  connect(&timer_, &QTimer::timeout, this, [this] {
    if (socket_) {
      lose();
    } else {
      tryToConnect();
    }
  });
}

void BridgeClient::open(BridgeDoor door) {
  close();
  door_ = std::move(door);
  delay_ = kFirstDelay;
  timer_.start(delay_);
}

void BridgeClient::close() {
  timer_.stop();
  if (isAdmitted_) (void)socket_->close(1000, kCloseTime);
  if (readable_ != nullptr) {
    readable_->setEnabled(false);
    readable_.release()->deleteLater();  // It may be what calls.
  }
  socket_.reset();
  isAdmitted_ = false;
}

void BridgeClient::tryToConnect() {
  auto connected = WebSocketClient::connect(door_.host, door_.port, kConnectTime);
  if (!connected) return lose();
  socket_.emplace(std::move(*connected));
  readable_ = std::make_unique<QSocketNotifier>(socket_->descriptor(), QSocketNotifier::Read);
  connect(readable_.get(), &QSocketNotifier::activated, this, [this] { read(); });
  timer_.start(kAdmissionTime);
  send("auth", "token", door_.token);
}

void BridgeClient::setInterface(const std::string& name) {
  send("set_interface", "interface", name);
}

// A connection that does not take it is found lost by its end.
void BridgeClient::send(const char* command, const char* key, const std::string& value) {
  JsonWriter text;
  text.literal("{\"cmd\":");
  text.string(command);
  text.literal(",");
  text.string(key);
  text.literal(":");
  text.string(value);
  text.literal("}");
  (void)socket_->sendText(text.text(), kSendTime);
}

void BridgeClient::read() {
  while (socket_) {
    const auto message = socket_->receive(kReadTime);
    if (message) {
      take(message->data);
    } else if (message.error() == WebSocketClientError::timedOut) {
      return;
    } else {
      return lose();
    }
  }
}

void BridgeClient::take(const std::string& message) {
  const auto event = parseJsonObject(message);
  const auto* what = event ? event->string("event") : nullptr;
  if (what == nullptr) return;
  if (*what == "auth_result") {
    // Another bridge than the one that got the token has the port.
    if (!event->boolean("ok").value_or(false)) return lose();
    timer_.stop();
    delay_ = kFirstDelay;
    isAdmitted_ = true;
  } else if (*what == "bridge_status" && isAdmitted_) {
    const auto* active = event->string("activeInterface");
    handlers_.onStatus(active != nullptr ? *active : std::string());
  } else if (*what == "error" && isAdmitted_) {
    const auto* text = event->string("error");
    handlers_.onError(text != nullptr ? *text : message);
  }
}

void BridgeClient::lose() {
  const bool wasAdmitted = std::exchange(isAdmitted_, false);
  close();
  timer_.start(delay_);
  delay_ = std::min(delay_ * 2, kMaxDelay);
  if (wasAdmitted) handlers_.onLost();
}

}  // namespace tarnlink
