// A status bar as programs see it on D-Bus: org.kde.StatusNotifierWatcher, and a client of the
// menus that items offer (com.canonical.dbusmenu).
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarnlink::test {

struct ShownItem {
  std::int32_t id = 0;
  std::string label;  ///< Empty for a separator.
  bool isEnabled = true;
  bool isChecked = false;
};

struct ShownMenu {
  std::vector<ShownItem> items;

  /// The first item whose label holds the text; a default one when there is none.
  ShownItem find(const std::string& text) const;
};

/// Waits up to ten seconds for whatever it is asked; throws std::runtime_error then.
class StatusBarHost {
 public:
  /// Whether there is one that shows icons: a watcher may come first.
  enum class Host { present, absent };

  /// Connects to the session bus and becomes the watcher.
  explicit StatusBarHost(Host host = Host::present);
  ~StatusBarHost();
  StatusBarHost(const StatusBarHost&) = delete;
  StatusBarHost& operator=(const StatusBarHost&) = delete;

  void registerHost() { isHostRegistered_ = 1; }
  /// Answers what has been asked.
  void serve();
  /// Until an item has registered.
  void awaitItem();
  ShownMenu menu();
  /// Until the menu has an item whose label holds the text and that carries a mark or not.
  ShownMenu awaitMenu(const std::string& text, bool isChecked = false);
  /// Says that the menu is about to be shown.
  void openMenu();
  /// "clicked" for an item, "closed" for item 0, the menu.
  void sendEvent(std::int32_t item, const char* event);

 private:
  static int registerItem(sd_bus_message* message, void* self, sd_bus_error* error);
  static int registerHost(sd_bus_message* message, void* self, sd_bus_error* error);
  static const sd_bus_vtable kWatcher[];

  sd_bus* bus_ = nullptr;
  std::string item_;
  std::string menuPath_;
  // Answers to the watcher's properties.
  int isHostRegistered_;
  std::int32_t protocolVersion_ = 0;
};

}  // namespace tarnlink::test
