#include "app/desktop/background_access.h"

#include <QEventLoop>
#include <QMetaObject>
#include <thread>

namespace tarnlink {

AdminResult BackgroundAccess::install() {
  AdminResult result;
  QEventLoop loop;
  bool isDone = false;
  std::thread worker([&] {
    AdminResult installed = inner_.install();
    QMetaObject::invokeMethod(
        &loop,
        [&, installed = std::move(installed)] {
          result = installed;
          isDone = true;
          loop.quit();
        },
        Qt::QueuedConnection);
  });
  loop.exec();
  if (!isDone) {
    inner_.cancel();
    result = AdminError{kAdminCancelled, {}};
  }
  worker.join();
  return result;
}

}  // namespace tarnlink
