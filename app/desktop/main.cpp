// tarnlink: the bridge with an icon in the status bar.
#include <CLI/CLI.hpp>
#include <QApplication>
#include <QCoreApplication>
#include <QTimer>
#include <csignal>
#include <string>

#include "app/desktop/antenna_icon.h"
#include "app/desktop/background_access.h"
#include "app/desktop/bridge_app_delegate.h"
#include "app/desktop/desktop_files.h"
#include "app/desktop/message_alerts.h"
#include "app/desktop/termination.h"
#include "app/host/bridge_supervisor.h"
#include "platform/console_log.h"
#include "platform/interface_names.h"
#include "server/bridge_event_encoder.h"
#include "stack/interface_discovery.h"

namespace tarnlink {
namespace {

class SystemNames final : public InterfaceNameSource {
 public:
  std::map<std::string, std::string> displayNames() override { return interfaceDisplayNames(); }
};

std::vector<NetworkInterfaceInfo> listInterfaces() {
  SystemNames names;
  return InterfaceDiscovery::listEthernetInterfaces(&names);
}

/// Runs the application to its end; its exit code.
int runDesktop(const QApplication& application) {
  const auto files = findBridgeFiles(QCoreApplication::applicationDirPath().toStdString());
  const auto preferenceFile = usablePreferenceFile(logToConsole);
  const auto preferences = makePreferenceStore(preferenceFile, logToConsole);
  BridgeSupervisor bridge({files.bridge, preferenceFile}, *preferences, logToConsole);
  // Only a bridge that is started after the installation gets the capability.
  BpfCapabilityAccess access(makeProcessRunner(), files, [&bridge] { bridge.restart(); });
  BackgroundAccess installing(access);
  MessageAlerts alerts;
  BpfPermissionHelper permission(installing, alerts);
  BridgeAppDelegate delegate({bridge, permission, listInterfaces, logToConsole});
  QObject::connect(&application, &QCoreApplication::aboutToQuit, &application,
                   [&delegate] { delegate.applicationWillTerminate(); });
  QTimer::singleShot(0, &application, [&delegate] { delegate.applicationDidFinishLaunching(); });
  return QApplication::exec();
}

}  // namespace
}  // namespace tarnlink

int main(int argc, char** argv) {
  using namespace tarnlink;
  CLI::App options("tarnlink - the Tarnlink bridge with an icon in the status bar");
  options.footer("Options of the user interface library, such as -platform, are taken too.");
  options.set_version_flag("--version",
                           "tarnlink " + std::string(BridgeEventEncoder::appVersion()));
  options.allow_extras();
  CLI11_PARSE(options, argc, argv);

  std::signal(SIGPIPE, SIG_IGN);
  expectDisplay();
  QApplication application(argc, argv);
  displayIsThere();
  QApplication::setApplicationName(QStringLiteral("tarnlink"));
  QApplication::setApplicationDisplayName(QStringLiteral("Korvel 61850 Tarnlink"));
  QApplication::setDesktopFileName(QStringLiteral("com.korvel.tarnlink"));
  QApplication::setWindowIcon(antennaIcon(true));
  // The status bar is all there is: closing an alert closes the last window.
  QApplication::setQuitOnLastWindowClosed(false);
  quitOnSignals();
  return runDesktop(application);
}
