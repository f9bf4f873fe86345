#include "app/desktop/status_icon.h"

#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QGuiApplication>
#include <cstdlib>
#include <string>
#include <utility>

#include <xcb/xcb.h>

namespace tarnlink {
namespace {

constexpr int kAnswerTime = 1'000;  // Milliseconds.

// The watcher may be there before a host that shows icons: KDE's is.
bool hasStatusNotifierHost() {
  const auto watcher = QStringLiteral("org.kde.StatusNotifierWatcher");
  const auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected() || !bus.interface()->isServiceRegistered(watcher)) return false;
  auto question = QDBusMessage::createMethodCall(watcher, QStringLiteral("/StatusNotifierWatcher"),
                                                 QStringLiteral("org.freedesktop.DBus.Properties"),
                                                 QStringLiteral("Get"));
  question << watcher << QStringLiteral("IsStatusNotifierHostRegistered");
  const QDBusReply<QVariant> answer = bus.call(question, QDBus::Block, kAnswerTime);
  return answer.isValid() && answer.value().toBool();
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

StatusIcon::StatusIcon(MenuView& menu, goosestack::LogSink log)
    : menu_(menu), log_(std::move(log)) {
  if (!QDBusConnection::sessionBus().isConnected()) {
    log_("[KorvelTarnlink] No session bus: the icon needs a status bar of the older kind (XEmbed)");
  }
}

void StatusIcon::setImage(const QIcon& image) {
  image_ = image;
  if (item_) item_->setIcon(image_);
}

void StatusIcon::setToolTip(const QString& text) {
  toolTip_ = text;
  if (item_) item_->setToolTip(toolTip_);
}

void StatusIcon::lookForStatusBar() {
  if (item_) return;
  const bool isOnBus = hasStatusNotifierHost();
  if (!isOnBus && !hasXEmbedTray()) {
    if (!std::exchange(hasComplained_, true)) {
      log_("[KorvelTarnlink] No status bar yet: the bridge serves without an icon");
    }
    return;
  }
  item_ = std::make_unique<QSystemTrayIcon>(image_);
  item_->setToolTip(toolTip_);
  item_->setContextMenu(isOnBus ? menu_.menuForBus() : menu_.menu());
  // The menu is all there is, so every button opens it.
  QObject::connect(item_.get(), &QSystemTrayIcon::activated, menu_.menu(),
                   [menu = menu_.menu()](QSystemTrayIcon::ActivationReason reason) {
                     if (reason == QSystemTrayIcon::Trigger) menu->popup(QCursor::pos());
                   });
  item_->show();
}

}  // namespace tarnlink
