#include "app/desktop/status_bar_controller.h"

#include <QApplication>
#include <QClipboard>
#include <QMetaObject>
#include <utility>

#include "app/desktop/antenna_icon.h"
#include "protocol/bridge_event_encoder.h"
#include "server/pairing_code.h"

namespace tarnlink {
namespace {

constexpr int kRefreshPeriod = 5'000;   // Milliseconds.
constexpr int kStatusBarTime = 10'000;  // Milliseconds; then the window takes the icon's place.
constexpr int kToolTipLength = 200;     // Characters of a reason.

// Status bars may take a tool tip for markup.
QString toolTipFor(const std::string& failure) {
  auto text = QApplication::applicationDisplayName();
  if (failure.empty()) return text;
  auto reason = QString::fromStdString(failure).left(kToolTipLength);
  return text + QLatin1Char('\n') + reason.remove(QLatin1Char('<')).remove(QLatin1Char('&'));
}

}  // namespace

StatusBarController::StatusBarController(StatusBarPorts ports)
    : ports_(std::move(ports)),
      interfaces_(ports_.listInterfaces()),
      menu_([this](const MenuItem& item) { choose(item); }),
      icon_(menu_, ports_.log),
      window_([this](const MenuItem& item) { choose(item); }, [this] { return !icon_.isShown(); }) {
  showBridge();
  icon_.lookForStatusBar();
  connect(&timer_, &QTimer::timeout, this, [this] { refresh(); });
  timer_.start(kRefreshPeriod);
  QTimer::singleShot(kStatusBarTime, this, [this] {
    icon_.lookForStatusBar();
    if (!icon_.isShown()) window_.present();
  });
}

StatusBarController::~StatusBarController() {
  listing_.waitForDone();
}

void StatusBarController::start() {
  wasGranted_ = ports_.permission.canReadBpf();
  ports_.bridge.start([this](const BridgeState&) { showBridge(); });
}

void StatusBarController::showBridge() {
  const auto& state = ports_.bridge.state();
  icon_.setImage(antennaIcon(state.phase == BridgePhase::running));
  icon_.setToolTip(toolTipFor(state.failure));
  buildMenu();
}

void StatusBarController::buildMenu() {
  const auto& state = ports_.bridge.state();
  const bool isRunning = state.phase == BridgePhase::running;
  const auto model =
      tarnlink::buildMenu({std::string(BridgeEventEncoder::appVersion()), state.phase, ports_.port,
                           pairingCode(ports_.preferences), interfaces_, state.activeInterface,
                           isRunning ? state.canCapture : ports_.permission.canReadBpf()},
                          ports_.texts);
  menu_.show(model);
  window_.show(model, state.failure);
}

// A bridge keeps what it got at its start, however access was given or taken since.
void StatusBarController::followAccess() {
  const bool isGranted = ports_.permission.canReadBpf();
  if (std::exchange(wasGranted_, isGranted) != isGranted) ports_.bridge.restart();
}

// Listing waits for the names that users know interfaces by, so not on the thread that draws.
void StatusBarController::refresh() {
  icon_.lookForStatusBar();
  followAccess();
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
      return ports_.bridge.setActiveInterface(item.represented);
    case MenuAction::installBpfAccess:
      return installBpfAccess();
    case MenuAction::quit:
      return QApplication::exit();  // quit() asks windows first, and ours may stay.
  }
}

void StatusBarController::copyPairingCode() {
  auto* clipboard = QApplication::clipboard();
  clipboard->clear();
  clipboard->setText(QString::fromStdString(pairingCode(ports_.preferences)));
}

void StatusBarController::installBpfAccess() {
  // The menu can be used while an alert is open.
  if (std::exchange(isInstalling_, true)) return;
  ports_.permission.ensureAccess();
  isInstalling_ = false;
  followAccess();
  buildMenu();
}

}  // namespace tarnlink
