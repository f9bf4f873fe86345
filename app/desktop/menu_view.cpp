#include "app/desktop/menu_view.h"

#include <QAction>
#include <QKeyEvent>
#include <QKeySequence>
#include <QMetaObject>
#include <utility>

namespace tarnlink {
namespace {

const QKeySequence kQuitKeys(Qt::CTRL | Qt::Key_Q);

// As it stands: Qt would take an ampersand for a mnemonic and a tab for the start of a shortcut.
QString titleOf(const MenuItem& item, bool isForBus) {
  QString title = QString::fromStdString(item.title);
  if (isForBus) title.replace(QLatin1Char('_'), QLatin1String("__"));
  title.replace(QLatin1Char('&'), QLatin1String("&&"));
  title.replace(QLatin1Char('\t'), QLatin1Char(' '));
  return title;
}

}  // namespace

MenuView::MenuView(Chosen chosen) : chosen_(std::move(chosen)) {
  for (const auto* menu : {&menu_, &menuForBus_}) {
    connect(menu, &QMenu::aboutToShow, this, [this] { setOpen(true); });
    connect(menu, &QMenu::aboutToHide, this, [this] { setOpen(false); });
  }
  menu_.installEventFilter(this);
}

void MenuView::show(MenuModel model) {
  pending_ = std::move(model);
  if (!isOpen()) draw();
}

bool MenuView::isOpen() const {
  return menu_.isVisible() ||
         (openSince_.isValid() && !openSince_.hasExpired(kLongestOpen.count()));
}

void MenuView::setOpen(bool isOpen) {
  if (isOpen) {
    openSince_.start();
    return;
  }
  openSince_.invalidate();
  // Not from within the menu's own event: drawing deletes its actions.
  QMetaObject::invokeMethod(
      this,
      [this] {
        if (!this->isOpen()) draw();
      },
      Qt::QueuedConnection);
}

void MenuView::draw() {
  if (!pending_) return;
  const MenuModel model = *std::exchange(pending_, std::nullopt);
  if (model == shown_) return;
  shown_ = model;
  for (auto* menu : {&menu_, &menuForBus_}) {
    menu->clear();
    for (const auto& item : shown_) addItem(*menu, item);
  }
}

void MenuView::addItem(QMenu& menu, const MenuItem& item) {
  if (item.isSeparator) {
    menu.addSeparator();
    return;
  }
  auto* action = menu.addAction(titleOf(item, &menu == &menuForBus_));
  action->setEnabled(item.action != MenuAction::none);
  if (item.action == MenuAction::quit) action->setShortcut(kQuitKeys);
  action->setCheckable(item.isChecked);
  action->setChecked(item.isChecked);
  connect(action, &QAction::triggered, this, [this, action, item] {
    // A click moves no mark: the bridge does, once it has switched.
    action->setChecked(item.isChecked);
    choose(item);
  });
}

void MenuView::choose(const MenuItem& item) {
  setOpen(false);
  QMetaObject::invokeMethod(
      this, [this, item] { chosen_(item); }, Qt::QueuedConnection);
}

bool MenuView::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::KeyPress &&
      QKeySequence(static_cast<QKeyEvent*>(event)->keyCombination()) == kQuitKeys) {
    menu_.close();
    for (const auto& item : shown_) {
      if (item.action == MenuAction::quit) choose(item);
    }
    return true;
  }
  return QObject::eventFilter(watched, event);
}

}  // namespace tarnlink
