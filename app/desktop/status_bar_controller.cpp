#include "app/desktop/status_bar_controller.h"

#include <QApplication>
#include <QClipboard>
#include <QMetaObject>
#include <utility>

#include "app/desktop/antenna_icon.h"
#include "server/bridge_event_encoder.h"
#include "server/bridge_server.h"

namespace tarnlink {
namespace {

constexpr int kRefreshPeriod = 5'000;  // Milliseconds.

}  // namespace

StatusBarController::StatusBarController(StatusBarPorts ports)
    : ports_(std::move(ports)),
      interfaces_(ports_.listInterfaces()),
      menu_([this](const MenuItem& item) { choose(item); }),
      icon_(menu_.menu(), ports_.log) {
  updateIcon();
  buildMenu();
  icon_.lookForStatusBar();
  connect(&timer_, &QTimer::timeout, this, [this] { refresh(); });
  timer_.start(kRefreshPeriod);
}

StatusBarController::~StatusBarController() {
  listing_.waitForDone();
}

void StatusBarController::start() {
  ports_.bridge.start(kDefaultBridgePort, [this](const BridgeState& state) {
    QMetaObject::invokeMethod(
        this, [this, state] { bridgeChanged(state); }, Qt::QueuedConnection);
  });
}

void StatusBarController::bridgeChanged(const BridgeState& state) {
  isRunning_ = state.isRunning;
  if (isRunning_) {
    ports_.log("[KorvelTarnlink] Listening on port " + std::to_string(kDefaultBridgePort));
  } else if (!state.failure.empty()) {
    ports_.log("[KorvelTarnlink] Start failed: " + state.failure);
  }
  updateIcon();
  buildMenu();
}

void StatusBarController::updateIcon() {
  icon_.setImage(antennaIcon(isRunning_));
}

void StatusBarController::buildMenu() {
  menu_.show(
      tarnlink::buildMenu({std::string(BridgeEventEncoder::appVersion()), isRunning_,
                           kDefaultBridgePort, ports_.bridge.pairingCode(), interfaces_,
                           ports_.bridge.activeInterface(), ports_.permission.canReadBpf()}));
}

// Listing waits for the names that users know interfaces by, so not on the thread that draws.
void StatusBarController::refresh() {
  icon_.lookForStatusBar();
  if (std::exchange(isListing_, true)) return;
  listing_.start([this] {
    auto listed = ports_.listInterfaces();
    QMetaObject::invokeMethod(
        this,
        [this, listed = std::move(listed)]() mutable {
          isListing_ = false;
          interfaces_ = std::move(listed);
          buildMenu();
        },
        Qt::QueuedConnection);
  });
}

void StatusBarController::choose(const MenuItem& item) {
  switch (item.action) {
    case MenuAction::none:
      return;
    case MenuAction::copyPairingCode:
      return copyPairingCode();
    case MenuAction::selectInterface:
      return selectInterface(item.represented);
    case MenuAction::installBpfAccess:
      return installBpfAccess();
    case MenuAction::quit:
      return QApplication::quit();
  }
}

void StatusBarController::copyPairingCode() {
  auto* clipboard = QApplication::clipboard();
  clipboard->clear();
  clipboard->setText(QString::fromStdString(ports_.bridge.pairingCode()));
}

void StatusBarController::installBpfAccess() {
  // The menu can be used while an alert is open.
  if (std::exchange(isInstalling_, true)) return;
  ports_.permission.ensureAccess();
  isInstalling_ = false;
  buildMenu();
}

void StatusBarController::selectInterface(const std::string& name) {
  ports_.bridge.setActiveInterface(name, [this] {
    QMetaObject::invokeMethod(
        this, [this] { buildMenu(); }, Qt::QueuedConnection);
  });
}

}  // namespace tarnlink
