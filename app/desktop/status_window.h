// The menu as a window, for desktops without a status bar.
#pragma once

#include <QWidget>
#include <functional>
#include <string>

#include "app/desktop/menu_model.h"

namespace tarnlink {

/// The thread that draws. Hidden until it is presented.
class StatusWindow final : public QWidget {
 public:
  using Chosen = std::function<void(const MenuItem&)>;

  /// `chosen` is called from the event loop, never from within an event of the window. While
  /// `isNeeded` says so, closing the window only minimises it: the bridge would serve unseen.
  StatusWindow(Chosen chosen, std::function<bool()> isNeeded);

  /// Draws the model if it differs from what is shown. `note`: why the bridge does not serve.
  void show(const MenuModel& model, const std::string& note);

  /// Brings the window before the others.
  void present();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  QWidget* widgetFor(const MenuItem& item);

  const Chosen chosen_;
  const std::function<bool()> isNeeded_;
  QWidget* content_ = nullptr;
  MenuModel shown_;
  std::string note_;
};

}  // namespace tarnlink
