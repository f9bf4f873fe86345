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

MenuItem separator() {
  MenuItem item;
  item.isSeparator = true;
  return item;
}

MenuItem interfaceItem(const NetworkInterfaceInfo& interface, const std::string& active) {
  auto item = text("  " + interface.name, MenuAction::selectInterface);
  if (!interface.displayName.empty()) item.title += " — " + interface.displayName;
  if (!interface.isUp) item.title += "  (down)";
  item.represented = interface.name;
  item.isChecked = interface.name == active;
  return item;
}

}  // namespace

MenuModel buildMenu(const MenuState& state) {
  MenuModel menu;
  menu.push_back(text("Korvel 61850 Tarnlink " + state.appVersion));
  menu.push_back(separator());
  menu.push_back(text(state.isRunning ? "● Läuft  ·  Port " + std::to_string(state.port)
                                      : std::string("○ Gestoppt")));
  menu.push_back(text("Pairing-Code: " + state.pairingCode + "  (klicken zum Kopieren)",
                      MenuAction::copyPairingCode));
  menu.push_back(separator());
  menu.push_back(text("Netzwerk-Interface:"));
  for (const auto& interface : state.interfaces) {
    menu.push_back(interfaceItem(interface, state.activeInterface));
  }
  if (state.interfaces.empty()) menu.push_back(text("  (keine Interfaces gefunden)"));
  menu.push_back(separator());
  menu.push_back(state.canCapture
                     ? text("✓ BPF-Zugriff aktiv")
                     : text("⚠ BPF-Zugriff einrichten…", MenuAction::installBpfAccess));
  menu.push_back(separator());
  menu.push_back(text("Beenden", MenuAction::quit));
  return menu;
}

}  // namespace tarnlink
