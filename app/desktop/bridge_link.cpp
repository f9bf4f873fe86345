#include "app/desktop/bridge_link.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tarnlink {
namespace {

using std::chrono::milliseconds;

// From one try to the next, doubled each time. A bridge listens some 20 ms after its start.
constexpr milliseconds kFirstDelay{20};
constexpr milliseconds kMaxDelay{1'000};
// On this computer everything takes less than a millisecond; the thread that draws waits no longer.
constexpr milliseconds kPatience{200};
// To be let in.
constexpr milliseconds kAdmissionTime{5'000};
// A wait in which a message that is on its way arrives.
constexpr milliseconds kReadTime{1};

}  // namespace

BridgeLink::BridgeLink(Handlers handlers) : handlers_(std::move(handlers)) {
  timer_.setSingleShot(true);
  connect(&timer_, &QTimer::timeout, this, [this] {
    if (client_) {
      lose();
    } else {
      tryToConnect();
    }
  });
}

void BridgeLink::open(BridgeDoor door) {
  close();
  door_ = std::move(door);
  delay_ = kFirstDelay;
  timer_.start(delay_);
}

void BridgeLink::close() {
  timer_.stop();
  if (isAdmitted_) client_->close();
  if (readable_ != nullptr) {
    readable_->setEnabled(false);
    readable_.release()->deleteLater();  // It may be what calls.
  }
  client_.reset();
  isAdmitted_ = false;
}

void BridgeLink::tryToConnect() {
  auto connected = BridgeClient::connect({door_.host}, door_.port, kPatience);
  if (!connected) return lose();
  client_.emplace(std::move(*connected));
  readable_ = std::make_unique<QSocketNotifier>(client_->descriptor(), QSocketNotifier::Read);
  connect(readable_.get(), &QSocketNotifier::activated, this, [this] { read(); });
  timer_.start(kAdmissionTime);
  // A connection that does not take it is found lost by its end.
  (void)client_->send({{"cmd", "auth"}, {"token", door_.token}});
}

void BridgeLink::setInterface(const std::string& name) {
  (void)client_->send({{"cmd", "set_interface"}, {"interface", name}});
}

void BridgeLink::read() {
  while (client_) {
    const auto event = client_->next(kReadTime);
    if (event) {
      take(*event);
    } else if (event.error() == WebSocketClientError::timedOut) {
      return;
    } else {
      return lose();
    }
  }
}

void BridgeLink::take(const BridgeEvent& event) {
  if (event.name == "auth_result") {
    // Another bridge than the one that got the token has the port.
    if (!findBoolean(event.members, "ok").value_or(false)) return lose();
    timer_.stop();
    delay_ = kFirstDelay;
    isAdmitted_ = true;
  } else if (event.name == "bridge_status" && isAdmitted_) {
    const auto* active = findString(event.members, "activeInterface");
    handlers_.onStatus(active != nullptr ? *active : std::string());
  } else if (event.name == "error" && isAdmitted_) {
    const auto* text = findString(event.members, "error");
    handlers_.onError(text != nullptr ? *text : event.text);
  }
}

void BridgeLink::lose() {
  const bool wasAdmitted = std::exchange(isAdmitted_, false);
  close();
  timer_.start(delay_);
  delay_ = std::min(delay_ * 2, kMaxDelay);
  if (wasAdmitted) handlers_.onLost();
}

}  // namespace tarnlink
