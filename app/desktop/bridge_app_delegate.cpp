#include "app/desktop/bridge_app_delegate.h"

#include "app/desktop/termination.h"

namespace tarnlink {

void BridgeAppDelegate::applicationDidFinishLaunching() {
  ports_.permission.ensureAccess();
  if (isAskedToEnd()) return;  // While an alert was open.
  statusBarController_ = std::make_unique<StatusBarController>(ports_);
  statusBarController_->start();
}

}  // namespace tarnlink
