// The menu, and what its items do, without a display.
#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <chrono>

#include "app/desktop/status_bar_controller.h"
#include "server/pairing_code.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

/// Once a process, before anything of Qt's.
void startApplication() {
  static int count = 3;
  static char name[] = "test", option[] = "-platform", platform[] = "offscreen";
  static char* words[] = {name, option, platform, nullptr};
  static const auto* const application = new QApplication(count, words);
  (void)application;
}

/// Runs the event loop until it holds, for ten seconds at most.
bool await(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  do {
    QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
  } while (!holds() && std::chrono::steady_clock::now() < deadline);
  return holds();
}

Texts titlesOf(const QMenu* menu) {
  Texts titles;
  for (const auto* action : menu->actions()) {
    titles.push_back((action->isEnabled() ? "" : "x") + action->text().toStdString());
  }
  return titles;
}

TEST(MenuView, ShowsTitlesAsTheyStandAndChangesOnlyAClosedMenu) {
  startApplication();
  std::string chosen;
  MenuView view([&](const MenuItem& item) { chosen += item.title; });
  const MenuItem item{.title = "a_&b\tc",
                      .action = MenuAction::selectInterface,
                      .represented = "x",
                      .isChecked = true};
  view.show({item, {.title = "text"}});
  EXPECT_EQ(titlesOf(view.menu()), (Texts{"a_&&b c", "xtext"}));
  EXPECT_EQ(titlesOf(view.menuForBus()), (Texts{"a__&&b c", "xtext"}));
  auto* drawn = view.menu()->actions().front();
  view.show({item, {.title = "text"}});
  EXPECT_EQ(view.menu()->actions().front(), drawn) << "an unchanged menu is left alone";

  drawn->trigger();
  EXPECT_TRUE(drawn->isChecked()) << "a click moves no mark";
  EXPECT_EQ(chosen, "") << "not from within a menu event";
  EXPECT_TRUE(await([&] { return chosen == item.title; }));

  Q_EMIT view.menuForBus()->aboutToShow();
  view.show({{.title = "quit", .action = MenuAction::quit}});
  EXPECT_EQ(view.menu()->actions().front(), drawn) << "not under the user's hands";
  Q_EMIT view.menuForBus()->aboutToHide();
  EXPECT_TRUE(await([&] { return titlesOf(view.menu()) == Texts{"quit"}; }));
  QKeyEvent keys(QEvent::KeyPress, Qt::Key_Q, Qt::ControlModifier);
  QCoreApplication::sendEvent(view.menu(), &keys);
  EXPECT_TRUE(await([&] { return chosen == item.title + "quit"; }));
}

struct ConsentingUser final : UserAlerts, CaptureAccess {
  bool confirm(std::string_view, std::string_view, std::string_view, std::string_view) override {
    return true;
  }
  void showInfo(std::string_view, std::string_view) override {}
  bool isGranted() override { return granted; }
  AdminResult install() override {
    granted = true;
    return {};
  }
  void cancel() override {}
  bool granted = false;
};

TEST(StatusBar, ItemsReachTheClipboardTheBridgeAndTheInstallation) {
  startApplication();
  const test::ScratchFolder folder;
  const auto store = makePreferenceStore(folder / "preferences.json", [](std::string_view) {});
  ConsentingUser user;
  BpfPermissionHelper permission(user, user);
  SupervisorOptions options;
  options.findProgram = [&] { return folder / "absent"; };
  BridgeSupervisor bridge(options, *store, [](std::string_view) {});
  std::atomic<bool> isPlugged = true;
  StatusBarController controller(
      {bridge, *store, permission, userTexts(Language::german), 8765,
       [&] {
         using Interfaces = std::vector<goosestack::NetworkInterfaceInfo>;
         return isPlugged ? Interfaces{{"ied0", "Bus", true, "", true}} : Interfaces{};
       },
       [](std::string_view) {}});
  controller.start();
  const auto find = [](const char* title) -> QAction* {
    for (auto* widget : QApplication::topLevelWidgets()) {
      for (auto* action : widget->actions()) {
        if (action->text().contains(QString::fromUtf8(title))) return action;
      }
    }
    return nullptr;
  };
  ASSERT_TRUE(await([&] { return find("Gestoppt") != nullptr && find("ied0") != nullptr; }));
  find("Pairing-Code")->trigger();
  const auto code = QString::fromStdString(pairingCode(*store));
  EXPECT_TRUE(await([&] { return QApplication::clipboard()->text() == code; }));
  find("ied0")->trigger();
  EXPECT_TRUE(await([&] { return find("ied0")->isChecked(); }));
  EXPECT_EQ(bridge.state().activeInterface, "ied0");
  find("⚠ BPF-Zugriff einrichten…")->trigger();
  EXPECT_TRUE(await([&] { return find("✓ BPF-Zugriff aktiv") != nullptr; }));
  isPlugged = false;
  EXPECT_TRUE(await([&] { return find("keine Interfaces gefunden") != nullptr; })) << "refreshed";
}

}  // namespace
}  // namespace tarnlink
