// The desktop program as its users meet it: on a display, in a status bar, with its real bridge.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "client/bridge_client.h"
#include "tests/desktop/desktop_session.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::DesktopSession;
using test::NetworkNamespace;
using test::SessionProgram;
using Json = nlohmann::json;
using Texts = std::vector<std::string>;

constexpr std::uint16_t kPort = 8765;
const std::string kListening = "[KorvelTarnlink] Listening on port 8765";

class DesktopProgram : public ::testing::Test {
 protected:
  void start(DesktopSession::Bus bus) {
    session_ = std::make_unique<DesktopSession>(bus);
    NetworkNamespace::addVethPair("bus_0", "ied0");
  }
  void launch(const Texts& argv = {TARNLINK}) {
    tarnlink_ = std::make_unique<SessionProgram>(argv);
  }

  std::unique_ptr<DesktopSession> session_;
  std::unique_ptr<SessionProgram> tarnlink_;
};

/// Says on the session bus whether there is a status bar, and hears of icons.
class StatusBarWatcher final : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(bool IsStatusNotifierHostRegistered MEMBER hasHost)

 public:
  StatusBarWatcher() {
    auto bus = QDBusConnection::sessionBus();
    const auto all = QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties;
    EXPECT_TRUE(bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), this, all));
    EXPECT_TRUE(bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));
  }
  bool hasHost = false;
  bool hasItem = false;

 public Q_SLOTS:
  void RegisterStatusNotifierItem(const QString&) { hasItem = true; }
};

/// Answers what the program asks meanwhile, until it holds, for fifteen seconds at most.
bool await(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    QCoreApplication::processEvents();
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

std::string windows(const char* search) {
  return DesktopSession::run("xdotool search --onlyvisible " + std::string(search) + " 2>&1");
}

TEST_F(DesktopProgram, AStatusBarThatStartsLaterGetsTheIcon) {
  start(DesktopSession::Bus::session);
  StatusBarWatcher watcher;
  launch();
  const auto second = std::chrono::steady_clock::now() + 1s;
  await([&] { return std::chrono::steady_clock::now() > second; });
  EXPECT_NE(tarnlink_->await("No status bar yet"), "") << "a watcher alone shows nothing";
  watcher.hasHost = true;
  EXPECT_TRUE(await([&] { return watcher.hasItem; }));
  tarnlink_->terminate();
  EXPECT_EQ(tarnlink_->awaitEnd(), 0) << "as at the end of a session";
  EXPECT_EQ(tarnlink_->count("[BridgeServer] Stopped"), 1);
}

TEST_F(DesktopProgram, WithoutAStatusBarAWindowShowsWhatTheMenuHas) {
  start(DesktopSession::Bus::session);
  const auto begin = std::chrono::steady_clock::now();
  launch({TARNLINK, "--language", "en"});
  const auto isShown = [] { return !windows("--name Tarnlink").empty(); };
  ASSERT_TRUE(await(isShown));
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 9s) << "a status bar may still come";
  const auto window = windows("--name Tarnlink");
  DesktopSession::run("xdotool windowfocus --sync " + window + " key alt+F4");
  EXPECT_TRUE(await([&] { return !isShown(); }));
  SessionProgram second({TARNLINK});
  EXPECT_TRUE(await(isShown)) << "a second start shows the first";
  EXPECT_EQ(second.awaitEnd(), 0);
  DesktopSession::run("xdotool windowfocus --sync " + window + " key ctrl+q");
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
  EXPECT_EQ(tarnlink_->count("No status bar"), 1);
  EXPECT_EQ(tarnlink_->count(kListening), 1) << "closing the window ended nothing";
}

// XEmbed, without a session bus; Ctrl+Q works where the menu has the keyboard.
TEST_F(DesktopProgram, ATrayOfTheOlderKindShowsTheMenu) {
  start(DesktopSession::Bus::none);
  SessionProgram tray({"/usr/bin/trayer", "--edge", "top", "--align", "left", "--widthtype",
                       "pixel", "--width", "40", "--height", "24"});
  launch();
  EXPECT_NE(tarnlink_->await("No session bus"), "");
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_TRUE(await([] {
    DesktopSession::run("xdotool mousemove 12 12 click 1 sleep 0.2");
    return windows("--class tarnlink getwindowgeometry").find("Geometry: 3") != std::string::npos;
  }));
  DesktopSession::run("xdotool key ctrl+q");
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
}

/// The user nobody, whose programs hold no capability, and a prompt that the test answers.
class DesktopProgramWithoutAccess : public DesktopProgram {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to act for another user";
    start(DesktopSession::Bus::session);
    folder_ = session_->folder() / "programs";
    fs::create_directory(folder_);
    fs::permissions(session_->folder(), fs::perms(0777));
    for (const std::string file : {TARNLINK, TARNLINKD, TARNLINK_CAPTURE_ACCESS}) {
      fs::copy_file(file, folder_ / fs::path(file).filename());
    }
    test::writeFile(folder_ / "pkexec",
                    "#!/bin/sh\ncd " + session_->folder().string() +
                        "\necho \"$@\" >asked\nuntil [ -s answer ]; do sleep 0.05; done\n"
                        "exit $(cat answer)\n",
                    fs::perms(0755));
    ::setenv("PATH", (folder_.string() + ":/usr/bin:/bin").c_str(), 1);
    auto argv = test::kAsNobody;
    argv.push_back((folder_ / "tarnlink").string());
    launch(argv);
  }

  /// Agrees to the question, and does as the administrator what the prompt then asks for.
  void consent() {
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "the question";
    const auto asked = session_->folder() / "asked";
    ASSERT_TRUE(await([&] { return !test::contentOf(asked).empty(); }));
    ASSERT_EQ(test::contentOf(asked), "--disable-internal-agent " + helper() + "\n");
    ASSERT_EQ(std::system(("PKEXEC_UID=65534 " + helper()).c_str()), 0);
    std::ofstream(session_->folder() / "answer") << "0\n";
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "what became of it";
  }

  /// Whether a subscription starts a capture.
  bool captures() {
    const auto preferences = session_->folder() / "config/tarnlink/preferences.json";
    const auto code = Json::parse(test::contentOf(preferences))["pairingCode"];
    auto client = BridgeClient::connect({"127.0.0.1"}, kPort).value();
    EXPECT_TRUE(Json::parse(client.authenticate(code.get<std::string>()).value().text)["ok"]);
    const auto answer = client.ask({{"cmd", "subscribe_goose"}}, "bridge_status");
    return Json::parse(answer.value().text).value("isCapturing", false);
  }

  std::string helper() const { return (folder_ / "tarnlink-capture-access").string(); }

  fs::path folder_;
};

TEST_F(DesktopProgramWithoutAccess, ConsentAtLaunchMakesTheBridgeCapture) {
  consent();
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_TRUE(captures());
}

TEST_F(DesktopProgramWithoutAccess, AskedToEndDuringTheQuestionItStartsNothing) {
  ASSERT_FALSE(windows("--sync --class tarnlink").empty());
  tarnlink_->terminate();
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
  EXPECT_EQ(tarnlink_->count(""), 0) << "no bridge and no icon were tried";
}

TEST_F(DesktopProgramWithoutAccess, TheRunningBridgeFollowsWhateverWayAccessComesAndGoes) {
  ASSERT_TRUE(DesktopSession::answerAlert("Escape"));
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_FALSE(captures());
  ASSERT_EQ(std::system(("SUDO_UID=65534 " + helper()).c_str()), 0);
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_TRUE(captures());
  ASSERT_EQ(std::system((helper() + " --remove").c_str()), 0);
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_FALSE(captures());
  EXPECT_EQ(tarnlink_->count("died"), 0);
}

TEST_F(DesktopProgram, WhatIsBrokenAroundItGetsOneLine) {
  start(DesktopSession::Bus::session);
  const auto preferences = session_->folder() / "config/tarnlink/preferences.json";
  fs::create_directories(preferences.parent_path());
  std::ofstream(preferences) << "{\"pairingCode\":";
  launch();
  EXPECT_EQ(tarnlink_->await(kListening), kListening);
  EXPECT_EQ(tarnlink_->count("is not a JSON object"), 1);
  tarnlink_->terminate();
  EXPECT_EQ(tarnlink_->awaitEnd(), 0) << "as at the end of a session";

  SessionProgram service({TARNLINKD, "--no-advertise"});
  EXPECT_EQ(service.await(kListening), kListening);
  launch();
  EXPECT_NE(tarnlink_->await("Start failed: Address already in use"), "");
  EXPECT_NE(tarnlink_->await("Start failed: tarnlinkd died (exit code 1)"), "");

  ::setenv("DISPLAY", ":4711", 1);
  SessionProgram blind({TARNLINK});
  EXPECT_EQ(blind.awaitEnd(), 1);
  EXPECT_EQ(blind.count(""), 1);
  EXPECT_EQ(blind.count("No display"), 1);
}

}  // namespace
}  // namespace tarnlink

#include <desktop_program_test.moc>
