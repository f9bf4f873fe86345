#include "app/desktop/menu_model.h"

#include <utility>

namespace tarnlink {
namespace {

MenuItem text(std::string_view title, MenuAction action = MenuAction::none) {
  return {.title = std::string(title), .action = action};
}

MenuItem interfaceItem(const goosestack::NetworkInterfaceInfo& interface,
                       const std::string& active) {
  auto title = "  " + interface.name;
  if (!interface.displayName.empty()) title += " — " + interface.displayName;
  if (!interface.isUp) title += "  (down)";
  return {.title = std::move(title),
          .action = MenuAction::selectInterface,
          .represented = interface.name,
          .isChecked = interface.name == active};
}

std::string phaseTitle(const MenuState& state, const UserTexts& texts) {
  switch (state.phase) {
    case BridgePhase::stopped:
      break;
    case BridgePhase::running:
      return std::string(texts.running) + std::to_string(state.port);
    case BridgePhase::restarting:
      return std::string(texts.restarting);
  }
  return std::string(texts.stopped);
}

}  // namespace

MenuModel buildMenu(const MenuState& state, const UserTexts& texts) {
  const MenuItem separator{.title = {}, .isSeparator = true};
  const auto code = std::string(texts.pairingCode) + state.pairingCode;
  MenuModel menu{text("Korvel 61850 Tarnlink " + state.appVersion),
                 separator,
                 text(phaseTitle(state, texts)),
                 text(code + std::string(texts.copyHint), MenuAction::copyPairingCode),
                 separator,
                 text(texts.interfaces)};
  for (const auto& interface : state.interfaces) {
    menu.push_back(interfaceItem(interface, state.activeInterface));
  }
  if (state.interfaces.empty()) menu.push_back(text(texts.noInterfaces));
  menu.push_back(separator);
  menu.push_back(state.canCapture ? text(texts.accessActive)
                                  : text(texts.accessMissing, MenuAction::installBpfAccess));
  menu.push_back(separator);
  menu.push_back(text(texts.quit, MenuAction::quit));
  return menu;
}

}  // namespace tarnlink
