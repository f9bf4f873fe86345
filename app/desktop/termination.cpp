#include "app/desktop/termination.h"

#include <unistd.h>

#include <QApplication>
#include <QSocketNotifier>
#include <chrono>
#include <csignal>

#include "platform/background_process.h"
#include "platform/console_log.h"

namespace tarnlink {
namespace {

// For the last line to be written. Milliseconds.
constexpr std::chrono::milliseconds kLogTime{500};

WakeSignal* signalled = nullptr;  // Set before the handlers.
bool askedToEnd = false;          // On the thread of the application alone.

extern "C" void wakeOnSignal(int) {
  signalled->wake();
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
  static WakeSignal wake;
  signalled = &wake;
  auto* notifier = new QSocketNotifier(wake.descriptor(), QSocketNotifier::Read, qApp);
  QObject::connect(notifier, &QSocketNotifier::activated, qApp, [] {
    wake.clear();
    askedToEnd = true;
    QApplication::quit();
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
