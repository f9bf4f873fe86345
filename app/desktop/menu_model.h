// What the status-bar menu shows, as a plain value: built without a user interface, compared with
// the menu that is shown, and only then drawn.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/host/user_texts.h"
#include "goosestack/network_interface_info.h"

namespace tarnlink {

enum class BridgePhase {
  stopped,
  running,     ///< The bridge has let its owner in.
  restarting,  ///< It has died or been ended, and will serve again.
};

/// Everything that the menu tells.
struct MenuState {
  std::string appVersion;
  BridgePhase phase = BridgePhase::stopped;
  std::uint16_t port = 0;
  std::string pairingCode;
  std::vector<goosestack::NetworkInterfaceInfo> interfaces;  ///< In the order of the menu.
  std::string activeInterface;                               ///< Empty: none.
  bool canCapture = false;  ///< What the running bridge can, else what one could that is started.
};

enum class MenuAction { none, copyPairingCode, selectInterface, installBpfAccess, quit };

/// Without an action an item is disabled. A separator has no title.
struct MenuItem {
  std::string title;
  MenuAction action = MenuAction::none;
  std::string represented = {};  ///< The interface's name, of items that choose one.
  bool isChecked = false;
  bool isSeparator = false;

  bool operator==(const MenuItem&) const = default;
};

using MenuModel = std::vector<MenuItem>;

MenuModel buildMenu(const MenuState& state, const UserTexts& texts);

}  // namespace tarnlink
