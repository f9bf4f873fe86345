#include "app/desktop/bridge_app_delegate.h"

namespace tarnlink {

void BridgeAppDelegate::applicationDidFinishLaunching() {
  ports_.permission.ensureAccess();
  if (isTerminating_) return;  // While an alert was open.
  statusBarController_ = std::make_unique<StatusBarController>(ports_);
  statusBarController_->start();
}

void BridgeAppDelegate::applicationWillTerminate() {
  isTerminating_ = true;
  ports_.bridge.stop();
}

}  // namespace tarnlink
