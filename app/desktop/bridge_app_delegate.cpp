#include "app/desktop/bridge_app_delegate.h"

#include "app/desktop/termination.h"

namespace tarnlink {

void BridgeAppDelegate::applicationDidFinishLaunching() {
  ports_.permission.ensureAccess();
  if (isAskedToEnd()) return;  // While an alert was open.
  statusBarController_ = std::make_unique<StatusBarController>(ports_);
  statusBarController_->start();
}

void BridgeAppDelegate::applicationShouldHandleReopen() {
  if (statusBarController_) statusBarController_->showWindow();
}

void BridgeAppDelegate::applicationWillTerminate() {
  ports_.bridge.stop();
}

}  // namespace tarnlink
