#include "app/desktop/menu_model.h"

#include <utility>

namespace tarnlink {
namespace {

MenuItem text(std::string title, MenuAction action = MenuAction::none) {
  MenuItem item;
  item.title = std::move(title);
  item.action = action;
  return item;
}

MenuItem text(std::string_view title, MenuAction action = MenuAction::none) {
  return text(std::string(title), action);
}

MenuItem separator() {
  MenuItem item;
  item.isSeparator = true;
  return item;
}

MenuItem interfaceItem(const goosestack::NetworkInterfaceInfo& interface,
                       const std::string& active) {
  auto item = text("  " + interface.name, MenuAction::selectInterface);
  if (!interface.displayName.empty()) item.title += " — " + interface.displayName;
  if (!interface.isUp) item.title += "  (down)";
  item.represented = interface.name;
  item.isChecked = interface.name == active;
  return item;
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
  MenuModel menu;
  menu.push_back(text("Korvel 61850 Tarnlink " + state.appVersion));
  menu.push_back(separator());
  menu.push_back(text(phaseTitle(state, texts)));
  menu.push_back(
      text(std::string(texts.pairingCode) + state.pairingCode + std::string(texts.copyHint),
           MenuAction::copyPairingCode));
  menu.push_back(separator());
  menu.push_back(text(texts.interfaces));
  for (const auto& interface : state.interfaces) {
    menu.push_back(interfaceItem(interface, state.activeInterface));
  }
  if (state.interfaces.empty()) menu.push_back(text(texts.noInterfaces));
  menu.push_back(separator());
  menu.push_back(state.canCapture ? text(texts.accessActive)
                                  : text(texts.accessMissing, MenuAction::installBpfAccess));
  menu.push_back(separator());
  menu.push_back(text(texts.quit, MenuAction::quit));
  return menu;
}

}  // namespace tarnlink
