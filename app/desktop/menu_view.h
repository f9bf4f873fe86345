// Draws a MenuModel as Qt menus.
#pragma once

#include <QElapsedTimer>
#include <QMenu>
#include <QObject>
#include <chrono>
#include <functional>
#include <optional>

#include "app/desktop/menu_model.h"

namespace tarnlink {

/// The thread that draws. The same menus for the life of the view: status bars keep hold of them.
class MenuView final : public QObject {
 public:
  using Chosen = std::function<void(const MenuItem&)>;

  /// Status bars tell when they open a menu, but not all of them tell when it closes; after this
  /// time it counts as closed.
  static constexpr std::chrono::milliseconds kLongestOpen{60'000};

  /// `chosen` is called from the event loop, never from within a menu event.
  explicit MenuView(Chosen chosen);

  /// For this program's own windows, and for trays that show them.
  QMenu* menu() { return &menu_; }
  /// For status bars that draw the menu themselves: those on D-Bus take an underscore for a
  /// mnemonic, so that it stands doubled here.
  QMenu* menuForBus() { return &menuForBus_; }

  /// Draws the model if it differs from what is shown; while the menu is open, once it has closed.
  void show(MenuModel model);

 protected:
  /// Ctrl+Q in the open menu: shortcuts are not looked for while a menu has the keyboard.
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  bool isOpen() const;
  void setOpen(bool isOpen);
  void draw();
  void addItem(QMenu& menu, const MenuItem& item);
  void choose(const MenuItem& item);

  Chosen chosen_;
  QMenu menu_;
  QMenu menuForBus_;
  MenuModel shown_;
  std::optional<MenuModel> pending_;
  QElapsedTimer openSince_;
};

}  // namespace tarnlink
