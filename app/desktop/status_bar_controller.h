// The program's only user interface: an icon in the status bar with a menu.
#pragma once

#include <QObject>
#include <QThreadPool>
#include <QTimer>
#include <cstdint>
#include <functional>
#include <vector>

#include "app/desktop/menu_view.h"
#include "app/desktop/status_icon.h"
#include "app/host/bpf_permission_helper.h"
#include "app/host/bridge.h"
#include "stack/log_sink.h"
#include "stack/network_interface_info.h"

namespace tarnlink {

/// What the controller needs; all of it outlives the controller.
struct StatusBarPorts {
  Bridge& bridge;
  BpfPermissionHelper& permission;
  /// Safe from any thread; may block for a while.
  std::function<std::vector<NetworkInterfaceInfo>()> listInterfaces;
  LogSink log;
};

/// The thread that draws. Knows neither where the bridge runs nor how capture access is given.
class StatusBarController final : public QObject {
 public:
  /// Shows the icon, struck through, and the first menu.
  explicit StatusBarController(StatusBarPorts ports);
  ~StatusBarController() override;

  /// Starts the bridge and returns; icon and menu follow what becomes of it.
  void start();

 private:
  void bridgeChanged(const BridgeState& state);
  void updateIcon();
  void buildMenu();
  void refresh();
  void choose(const MenuItem& item);
  void copyPairingCode();
  void installBpfAccess();
  void selectInterface(const std::string& name);

  StatusBarPorts ports_;
  bool isRunning_ = false;
  bool isInstalling_ = false;
  bool isListing_ = false;
  std::vector<NetworkInterfaceInfo> interfaces_;
  MenuView menu_;
  StatusIcon icon_;
  QTimer timer_;
  QThreadPool listing_;
};

}  // namespace tarnlink
