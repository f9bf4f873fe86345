// tarnlink: the bridge with an icon in the status bar.
#include <QApplication>
#include <QCoreApplication>
#include <QLocale>
#include <QTimer>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <variant>

#include "app/desktop/antenna_icon.h"
#include "app/desktop/background_access.h"
#include "app/desktop/bridge_app_delegate.h"
#include "app/desktop/bridge_supervisor.h"
#include "app/desktop/desktop_files.h"
#include "app/desktop/desktop_options.h"
#include "app/desktop/message_alerts.h"
#include "app/desktop/single_instance.h"
#include "app/desktop/termination.h"
#include "app/host/named_interfaces.h"
#include "platform/console_log.h"

namespace tarnlink {
namespace fs = std::filesystem;
namespace {

// A prompt may wait for its person all day: nothing else does meanwhile.
constexpr std::chrono::hours kPromptTime{24};

// A session without a language, such as "C", gets the texts as they were written first.
Language sessionLanguage() {
  const auto name = QLocale::system().uiLanguages().value(0);
  const bool isNone = QLocale::system().name() == QLatin1String("C");
  return isNone || name.startsWith(QLatin1String("de")) ? Language::german : Language::english;
}

/// Runs the application to its end; its exit code.
int runDesktop(const QApplication& application, const DesktopOptions& options) {
  const fs::path ownFolder = QCoreApplication::applicationDirPath().toStdString();
  const auto files = findBridgeFiles(ownFolder);
  const auto preferenceFile = usablePreferenceFile(logToConsole);
  const auto preferences = makePreferenceStore(preferenceFile, logToConsole);
  const auto& texts = userTexts(options.language.value_or(sessionLanguage()));
  SupervisorOptions supervision;
  supervision.findProgram = [&] { return bridgeForThisUser(files, ownFolder, logToConsole); };
  supervision.preferences = preferenceFile;
  supervision.arguments = options.bridgeArguments;
  const auto& addresses = options.bridge.access.addresses;
  if (!addresses.empty()) supervision.host = addresses.front().to_string();
  supervision.port = options.bridge.port;
  BridgeSupervisor bridge(supervision, *preferences, logToConsole);
  BpfCapabilityAccess access(makeProcessRunner(kPromptTime), files);
  BackgroundAccess installing(access);
  MessageAlerts alerts;
  BpfPermissionHelper permission(installing, alerts, texts);
  BridgeAppDelegate delegate({bridge, *preferences, permission, texts, options.bridge.port,
                              listNamedInterfaces, logToConsole});
  if (!becomeOnlyInstance([&delegate] { delegate.applicationShouldHandleReopen(); })) {
    logToConsole("[KorvelTarnlink] Runs already in this session: that one shows its window");
    return 0;
  }
  QObject::connect(&application, &QCoreApplication::aboutToQuit, &application,
                   [&delegate] { delegate.applicationWillTerminate(); });
  QTimer::singleShot(0, &application, [&delegate] { delegate.applicationDidFinishLaunching(); });
  return QApplication::exec();
}

}  // namespace
}  // namespace tarnlink

int main(int argc, char** argv) {
  using namespace tarnlink;
  const auto options = parseDesktopOptions(argc, argv);
  if (const auto* exit = std::get_if<ExitCode>(&options)) return exit->value;

  std::signal(SIGPIPE, SIG_IGN);
  expectDisplay();
  QApplication application(argc, argv);
  displayIsThere();
  QApplication::setApplicationName(QStringLiteral("tarnlink"));
  QApplication::setApplicationDisplayName(QStringLiteral("Korvel 61850 Tarnlink"));
  QApplication::setDesktopFileName(QStringLiteral("com.korvel.tarnlink"));
  QApplication::setWindowIcon(antennaIcon(true));
  // Closing an alert, or the window, never ends the program.
  QApplication::setQuitOnLastWindowClosed(false);
  quitOnSignals();
  return runDesktop(application, std::get<DesktopOptions>(options));
}
