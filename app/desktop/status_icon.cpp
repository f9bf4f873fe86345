#include "app/desktop/status_icon.h"

#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QGuiApplication>
#include <cstdlib>
#include <string>
#include <utility>

#include <xcb/xcb.h>

namespace tarnlink {
namespace {

bool hasStatusNotifierHost() {
  const auto bus = QDBusConnection::sessionBus();
  return bus.isConnected() &&
         bus.interface()->isServiceRegistered(QStringLiteral("org.kde.StatusNotifierWatcher"));
}

// System tray protocol: the tray of screen n owns the selection _NET_SYSTEM_TRAY_Sn.
bool hasXEmbedTray() {
  const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
  if (x11 == nullptr || x11->connection() == nullptr) return false;
  auto* connection = x11->connection();
  int display = 0;
  int screen = 0;
  char* host = nullptr;
  if (::xcb_parse_display(nullptr, &host, &display, &screen) != 0) std::free(host);
  const std::string name = "_NET_SYSTEM_TRAY_S" + std::to_string(screen);
  auto* atom = ::xcb_intern_atom_reply(
      connection,
      ::xcb_intern_atom(connection, 1, static_cast<std::uint16_t>(name.size()), name.c_str()),
      nullptr);
  const auto id = atom != nullptr ? atom->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(atom);
  if (id == XCB_ATOM_NONE) return false;
  auto* owner = ::xcb_get_selection_owner_reply(connection,
                                                ::xcb_get_selection_owner(connection, id), nullptr);
  const bool isOwned = owner != nullptr && owner->owner != XCB_WINDOW_NONE;
  std::free(owner);
  return isOwned;
}

}  // namespace

StatusIcon::StatusIcon(QMenu* menu, LogSink log) : menu_(menu), log_(std::move(log)) {
  if (!QDBusConnection::sessionBus().isConnected()) {
    log_("[KorvelTarnlink] No session bus: the icon needs a status bar of the older kind (XEmbed)");
  }
}

void StatusIcon::setImage(const QIcon& image) {
  image_ = image;
  if (item_) item_->setIcon(image_);
}

void StatusIcon::lookForStatusBar() {
  if (item_) return;
  if (!hasStatusNotifierHost() && !hasXEmbedTray()) {
    if (!std::exchange(hasComplained_, true)) {
      log_("[KorvelTarnlink] No status bar yet: the bridge serves without an icon");
    }
    return;
  }
  item_ = std::make_unique<QSystemTrayIcon>(image_);
  item_->setToolTip(QStringLiteral("Korvel 61850 Tarnlink"));
  item_->setContextMenu(menu_);
  // The menu is all there is, so every button opens it.
  QObject::connect(item_.get(), &QSystemTrayIcon::activated, menu_,
                   [menu = menu_](QSystemTrayIcon::ActivationReason reason) {
                     if (reason == QSystemTrayIcon::Trigger) menu->popup(QCursor::pos());
                   });
  item_->show();
}

}  // namespace tarnlink
