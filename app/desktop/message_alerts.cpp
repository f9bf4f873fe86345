#include "app/desktop/message_alerts.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

namespace tarnlink {
namespace {

QString toQt(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Plain text throughout: what tools wrote must not be taken for markup.
void fill(QMessageBox& box, std::string_view title, std::string_view message) {
  box.setIcon(QMessageBox::Information);
  box.setTextFormat(Qt::PlainText);
  box.setText(toQt(title));
  box.setInformativeText(toQt(message));
  if (auto* label = box.findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"))) {
    label->setTextFormat(Qt::PlainText);
  }
}

}  // namespace

bool MessageAlerts::confirm(std::string_view title, std::string_view message,
                            std::string_view accept, std::string_view decline) {
  QMessageBox box;
  fill(box, title, message);
  auto* first = box.addButton(toQt(accept), QMessageBox::AcceptRole);
  auto* second = box.addButton(toQt(decline), QMessageBox::RejectRole);
  box.setDefaultButton(first);
  box.setEscapeButton(second);
  box.exec();
  return box.clickedButton() == first;
}

void MessageAlerts::showInfo(std::string_view title, std::string_view message) {
  QMessageBox box;
  fill(box, title, message);
  box.setStandardButtons(QMessageBox::Ok);
  box.button(QMessageBox::Ok)->setText(QStringLiteral("OK"));
  box.exec();
}

}  // namespace tarnlink
