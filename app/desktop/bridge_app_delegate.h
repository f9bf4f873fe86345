// What happens when the application has launched and when it ends.
#pragma once

#include <memory>

#include "app/desktop/status_bar_controller.h"

namespace tarnlink {

/// The thread that draws.
class BridgeAppDelegate {
 public:
  explicit BridgeAppDelegate(StatusBarPorts ports) : ports_(std::move(ports)) {}

  /// Asks for capture access where it is missing, before the icon is shown; whatever the answer,
  /// the icon and the bridge come up. Runs its own event loops while alerts are open.
  void applicationDidFinishLaunching();

  /// The program was started again: shows its window, unless an alert is what it shows yet.
  void applicationShouldHandleReopen() {
    if (statusBarController_) statusBarController_->showWindow();
  }

  /// Ends the bridge in order, within a few seconds.
  void applicationWillTerminate() { ports_.bridge.stop(); }

 private:
  StatusBarPorts ports_;
  std::unique_ptr<StatusBarController> statusBarController_;
};

}  // namespace tarnlink
