// A status bar as programs see it on D-Bus: org.kde.StatusNotifierWatcher, and a client of the
// menus that items offer (com.canonical.dbusmenu).
#pragma once

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>
#include <QVariantList>
#include <string>
#include <vector>

namespace tarnlink::test {

struct ShownItem {
  int id = 0;
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
class StatusBarHost final : public QObject, protected QDBusContext {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(bool IsStatusNotifierHostRegistered MEMBER isHostRegistered)
  Q_PROPERTY(int ProtocolVersion MEMBER protocolVersion)

 public:
  /// Connects to the session bus and becomes the watcher.
  explicit StatusBarHost(bool hasHost = true);

  /// Answers what has been asked.
  static void serve();
  /// Until an item has registered.
  void awaitItem();
  ShownMenu menu() const;
  /// Until the menu has an item whose label holds the text and that carries a mark or not.
  ShownMenu awaitMenu(const std::string& text, bool isChecked = false) const;
  /// Says that the menu is about to be shown.
  void openMenu() const { call("AboutToShow", {0}); }
  /// "clicked" for an item, "closed" for item 0, the menu.
  void sendEvent(int item, const char* event) const;

  /// Whether there is one that shows icons: a watcher may come first.
  bool isHostRegistered;
  int protocolVersion = 0;

 public Q_SLOTS:
  void RegisterStatusNotifierItem(const QString&) { item_ = message().service(); }

 private:
  QVariantList call(const char* method, const QVariantList& arguments) const;

  QDBusConnection bus_;
  QString item_;
  QString menuPath_;
};

}  // namespace tarnlink::test
