#include "app/desktop/status_window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QFrame>
#include <QKeySequence>
#include <QLabel>
#include <QMetaObject>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>
#include <memory>
#include <utility>

namespace tarnlink {
namespace {

// Buttons take an ampersand for a mnemonic.
QString buttonTitle(const MenuItem& item) {
  return QString::fromStdString(item.title)
      .trimmed()
      .replace(QLatin1Char('&'), QLatin1String("&&"));
}

QLabel* plainLabel(const std::string& text) {
  auto* label = new QLabel;
  label->setTextFormat(Qt::PlainText);
  label->setText(QString::fromStdString(text).trimmed());
  label->setWordWrap(true);
  return label;
}

}  // namespace

StatusWindow::StatusWindow(Chosen chosen, std::function<bool()> isNeeded)
    : chosen_(std::move(chosen)), isNeeded_(std::move(isNeeded)) {
  setWindowTitle(QApplication::applicationDisplayName());
  auto* frame = new QVBoxLayout(this);
  frame->setContentsMargins(0, 0, 0, 0);
  frame->setSizeConstraint(QLayout::SetFixedSize);
}

void StatusWindow::show(const MenuModel& model, const std::string& note) {
  if (content_ != nullptr && model == shown_ && note == note_) return;
  shown_ = model;
  note_ = note;
  delete content_;
  content_ = new QWidget;
  auto* rows = new QVBoxLayout(content_);
  for (const auto& item : shown_) rows->addWidget(widgetFor(item));
  if (!note_.empty()) rows->insertWidget(3, plainLabel(note_));  // Below the bridge's state.
  layout()->addWidget(content_);
}

QWidget* StatusWindow::widgetFor(const MenuItem& item) {
  if (item.isSeparator) {
    auto* line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    return line;
  }
  if (item.action == MenuAction::none) return plainLabel(item.title);
  QAbstractButton* button = nullptr;
  if (item.action == MenuAction::selectInterface) {
    button = new QRadioButton(buttonTitle(item));
    button->setAutoExclusive(false);
    button->setChecked(item.isChecked);
  } else {
    button = new QPushButton(buttonTitle(item));
  }
  if (item.action == MenuAction::quit) button->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  connect(button, &QAbstractButton::clicked, this, [this, button, item] {
    // A click moves no mark: the bridge does, once it has switched.
    button->setChecked(item.isChecked);
    QMetaObject::invokeMethod(
        this, [this, item] { chosen_(item); }, Qt::QueuedConnection);
  });
  return button;
}

void StatusWindow::present() {
  showNormal();
  raise();
  activateWindow();
}

void StatusWindow::closeEvent(QCloseEvent* event) {
  if (!isNeeded_()) return event->accept();
  event->ignore();
  showMinimized();
}

}  // namespace tarnlink
