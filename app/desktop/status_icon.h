// The icon in the status bar, from the moment that there is a status bar.
#pragma once

#include <QIcon>
#include <QString>
#include <QSystemTrayIcon>
#include <memory>

#include "app/desktop/menu_view.h"
#include "goosestack/log_sink.h"

namespace tarnlink {

/// The thread that draws. A status bar may start long after this program, at log-in for example.
/// Qt decides with the first icon, and for good, whether icons are status notifier items on D-Bus
/// or XEmbed windows; so none is made before one of the two has a host.
class StatusIcon {
 public:
  /// The view outlives the icon.
  StatusIcon(MenuView& menu, goosestack::LogSink log);

  void setImage(const QIcon& image);
  void setToolTip(const QString& text);

  /// Makes the icon when there is a status bar for it. Call from time to time.
  void lookForStatusBar();

  /// There has been a status bar.
  bool isShown() const { return item_ != nullptr; }

 private:
  MenuView& menu_;
  goosestack::LogSink log_;
  QIcon image_;
  QString toolTip_;
  std::unique_ptr<QSystemTrayIcon> item_;
  bool hasComplained_ = false;
};

}  // namespace tarnlink
