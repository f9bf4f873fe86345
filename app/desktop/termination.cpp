#include "app/desktop/termination.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <QApplication>
#include <QSocketNotifier>
#include <chrono>
#include <csignal>
#include <cstdint>

#include "platform/console_log.h"

namespace tarnlink {
namespace {

// For the last line to be written. Milliseconds.
constexpr std::chrono::milliseconds kLogTime{500};

int signalled = -1;       // Readable once a signal has come. Set before the handlers.
bool askedToEnd = false;  // On the thread of the application alone.

extern "C" void wakeOnSignal(int) {
  const std::uint64_t one = 1;
  const ssize_t written = ::write(signalled, &one, sizeof one);
  static_cast<void>(written);
}

void endWithoutDisplay(QtMsgType type, const QMessageLogContext&, const QString&) {
  // The messages before the fatal one are advice on Qt's plug-ins.
  if (type != QtFatalMsg) return;
  logToConsole("[KorvelTarnlink] No display to show the status bar icon on; tarnlinkd needs none");
  flushConsoleLog(kLogTime);
  ::_exit(1);
}

}  // namespace

void quitOnSignals() {
  signalled = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  auto* notifier = new QSocketNotifier(signalled, QSocketNotifier::Read, qApp);
  QObject::connect(notifier, &QSocketNotifier::activated, qApp, [] {
    std::uint64_t seen = 0;
    const ssize_t count = ::read(signalled, &seen, sizeof seen);
    static_cast<void>(count);
    askedToEnd = true;
    QApplication::exit();
  });
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) std::signal(number, wakeOnSignal);
}

bool isAskedToEnd() {
  return askedToEnd;
}

void expectDisplay() {
  qInstallMessageHandler(endWithoutDisplay);
}

void displayIsThere() {
  qInstallMessageHandler(nullptr);
}

}  // namespace tarnlink
