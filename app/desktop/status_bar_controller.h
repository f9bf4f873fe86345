// The program's user interface: an icon in the status bar with a menu, or a window in its place.
#pragma once

#include <QObject>
#include <QThreadPool>
#include <QTimer>
#include <cstdint>
#include <functional>
#include <vector>

#include "app/desktop/bridge_supervisor.h"
#include "app/desktop/menu_view.h"
#include "app/desktop/status_icon.h"
#include "app/desktop/status_window.h"
#include "app/host/bpf_permission_helper.h"
#include "app/host/user_texts.h"
#include "goosestack/log_sink.h"
#include "goosestack/network_interface_info.h"
#include "platform/preference_store.h"

namespace tarnlink {

/// What the controller needs; all of it outlives the controller.
struct StatusBarPorts {
  BridgeSupervisor& bridge;
  PreferenceStore& preferences;
  BpfPermissionHelper& permission;
  const UserTexts& texts;
  std::uint16_t port;
  /// Safe from any thread; may block for a while.
  std::function<std::vector<goosestack::NetworkInterfaceInfo>()> listInterfaces;
  goosestack::LogSink log;
};

/// The thread that draws. Does not know how capture access is given.
class StatusBarController final : public QObject {
 public:
  /// Shows the icon, struck through, and the first menu.
  explicit StatusBarController(StatusBarPorts ports);
  ~StatusBarController() override;

  /// Starts the bridge and returns; icon and menu follow what becomes of it.
  void start();

  /// Opens the window, or brings it before the others.
  void showWindow() { window_.present(); }

 private:
  void showBridge();
  void buildMenu();
  void refresh();
  void followAccess();
  void choose(const MenuItem& item);
  void copyPairingCode();
  void installBpfAccess();

  StatusBarPorts ports_;
  bool wasGranted_ = false;  ///< Capture access, when the bridge was last started for it.
  bool isInstalling_ = false;
  bool isListing_ = false;
  std::vector<goosestack::NetworkInterfaceInfo> interfaces_;
  MenuView menu_;
  StatusIcon icon_;
  StatusWindow window_;
  QTimer timer_;
  QThreadPool listing_;
};

}  // namespace tarnlink
