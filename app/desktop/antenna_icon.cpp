#include "app/desktop/antenna_icon.h"

#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

namespace tarnlink {

QIcon antennaIcon(bool isRunning) {
  constexpr int kSizes[] = {16, 22, 24, 32, 48};  // Pixels.
  QSvgRenderer drawing(isRunning ? QStringLiteral(":/icons/antenna.svg")
                                 : QStringLiteral(":/icons/antenna_slash.svg"));
  QIcon icon;
  for (const int size : kSizes) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    drawing.render(&painter);
    painter.end();
    icon.addPixmap(pixmap);
  }
  return icon;
}

}  // namespace tarnlink
