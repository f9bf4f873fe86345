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
using test::count;
using test::DesktopSession;
using test::NetworkNamespace;
using test::Program;
using Json = nlohmann::json;
using Texts = std::vector<std::string>;

constexpr std::uint16_t kPort = 8765;
const std::map<std::string, std::string> kNoVariables;
const std::string kListening = "[KorvelTarnlink] Listening on port 8765";

class DesktopProgram : public ::testing::Test {
 protected:
  void start(DesktopSession::Bus bus) {
    session_ = std::make_unique<DesktopSession>(bus);
    NetworkNamespace::addVethPair("bus_0", "ied0");
  }
  void launch(const Texts& argv = {TARNLINK}) {
    tarnlink_ = std::make_unique<Program>(argv, kNoVariables, Program::Errors::passedOn);
  }

  std::unique_ptr<DesktopSession> session_;
  std::unique_ptr<Program> tarnlink_;
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
  return DesktopSession::shell("xdotool search --onlyvisible " + std::string(search) + " 2>&1");
}

TEST_F(DesktopProgram, AStatusBarThatStartsLaterGetsTheIcon) {
  start(DesktopSession::Bus::session);
  StatusBarWatcher watcher;
  launch();
  const auto second = std::chrono::steady_clock::now() + 1s;
  await([&] { return std::chrono::steady_clock::now() > second; });
  EXPECT_TRUE(tarnlink_->waitForOutput("No status bar yet")) << "a watcher alone shows nothing";
  watcher.hasHost = true;
  EXPECT_TRUE(await([&] { return watcher.hasItem; }));
  EXPECT_EQ(tarnlink_->end(), 0) << "as at the end of a session";
  EXPECT_EQ(count(*tarnlink_, "[BridgeServer] Stopped"), 1);
}

TEST_F(DesktopProgram, WithoutAStatusBarAWindowShowsWhatTheMenuHas) {
  start(DesktopSession::Bus::session);
  const auto begin = std::chrono::steady_clock::now();
  launch({TARNLINK, "--language", "en"});
  const auto isShown = [] { return !windows("--name Tarnlink").empty(); };
  ASSERT_TRUE(await(isShown));
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 9s) << "a status bar may still come";
  const auto window = windows("--name Tarnlink");
  DesktopSession::shell("xdotool windowfocus --sync " + window + " key alt+F4");
  EXPECT_TRUE(await([&] { return !isShown(); }));
  Program second({TARNLINK});
  EXPECT_TRUE(await(isShown)) << "a second start shows the first";
  EXPECT_EQ(second.wait(), 0);
  DesktopSession::shell("xdotool windowfocus --sync " + window + " key ctrl+q");
  EXPECT_EQ(tarnlink_->wait(), 0);
  EXPECT_EQ(count(*tarnlink_, "No status bar"), 1);
  EXPECT_EQ(count(*tarnlink_, kListening), 1) << "closing the window ended nothing";
}

// XEmbed, without a session bus; Ctrl+Q works where the menu has the keyboard.
TEST_F(DesktopProgram, ATrayOfTheOlderKindShowsTheMenu) {
  start(DesktopSession::Bus::none);
  Program tray({"/usr/bin/trayer", "--edge", "top", "--align", "left", "--widthtype", "pixel",
                "--width", "40", "--height", "24"});
  launch();
  EXPECT_TRUE(tarnlink_->waitForOutput("No session bus"));
  EXPECT_TRUE(tarnlink_->waitForOutput(kListening));
  EXPECT_TRUE(await([] {
    DesktopSession::shell("xdotool mousemove 12 12 click 1 sleep 0.2");
    return windows("--class tarnlink getwindowgeometry").find("Geometry: 3") != std::string::npos;
  }));
  DesktopSession::shell("xdotool key ctrl+q");
  EXPECT_EQ(tarnlink_->wait(), 0);
}

/// The user nobody, whose programs hold no capability, and a prompt that the test answers.
class DesktopProgramWithoutAccess : public DesktopProgram {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to act for another user";
    start(DesktopSession::Bus::session);
    folder_ = *session_ / "programs";
    fs::create_directory(folder_);
    for (const std::string file : {TARNLINK, TARNLINKD, TARNLINK_CAPTURE_ACCESS}) {
      fs::copy_file(file, folder_ / fs::path(file).filename());
    }
    test::writeFile(folder_ / "pkexec",
                    "#!/bin/sh\ncd " + (*session_ / "").string() +
                        "\necho \"$@\" >asked\nuntil [ -s answer ]; do sleep 0.05; done\n"
                        "exit $(cat answer)\n",
                    fs::perms(0755));
    ::setenv("PATH", (folder_.string() + ":/usr/bin:/bin").c_str(), 1);
    launch({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
            (folder_ / "tarnlink").string()});
  }

  /// Agrees to the question, and does as the administrator what the prompt then asks for.
  void consent() {
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "the question";
    const auto asked = *session_ / "asked";
    ASSERT_TRUE(await([&] { return !test::contentOf(asked).empty(); }));
    ASSERT_EQ(test::contentOf(asked), "--disable-internal-agent " + helper() + "\n");
    ASSERT_EQ(std::system(("PKEXEC_UID=65534 " + helper()).c_str()), 0);
    std::ofstream(*session_ / "answer") << "0\n";
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "what became of it";
  }

  /// Whether a subscription starts a capture.
  bool captures() {
    const auto preferences = *session_ / "config/tarnlink/preferences.json";
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
  EXPECT_TRUE(tarnlink_->waitForOutput(kListening));
  EXPECT_TRUE(captures());
}

TEST_F(DesktopProgramWithoutAccess, AskedToEndDuringTheQuestionItStartsNothing) {
  ASSERT_FALSE(windows("--sync --class tarnlink").empty());
  EXPECT_EQ(tarnlink_->end(), 0);
  EXPECT_EQ(count(*tarnlink_, "\n"), 0) << "no bridge and no icon were tried";
}

TEST_F(DesktopProgramWithoutAccess, TheRunningBridgeFollowsWhateverWayAccessComesAndGoes) {
  ASSERT_TRUE(DesktopSession::answerAlert("Escape"));
  EXPECT_TRUE(test::await(*tarnlink_, kListening, 1));
  EXPECT_FALSE(captures());
  ASSERT_EQ(std::system(("SUDO_UID=65534 " + helper()).c_str()), 0);
  EXPECT_TRUE(test::await(*tarnlink_, kListening, 2));
  EXPECT_TRUE(captures());
  ASSERT_EQ(std::system((helper() + " --remove").c_str()), 0);
  EXPECT_TRUE(test::await(*tarnlink_, kListening, 3));
  EXPECT_FALSE(captures());
  EXPECT_EQ(count(*tarnlink_, "died"), 0);
}

TEST_F(DesktopProgram, WhatIsBrokenAroundItGetsOneLine) {
  start(DesktopSession::Bus::session);
  const auto preferences = *session_ / "config/tarnlink/preferences.json";
  fs::create_directories(preferences.parent_path());
  std::ofstream(preferences) << "{\"pairingCode\":";
  launch();
  EXPECT_TRUE(tarnlink_->waitForOutput(kListening));
  EXPECT_EQ(count(*tarnlink_, "is not a JSON object"), 1);
  EXPECT_EQ(tarnlink_->end(), 0) << "as at the end of a session";

  Program service({TARNLINKD, "--no-advertise"});
  EXPECT_TRUE(service.waitForOutput(kListening));
  launch();
  EXPECT_TRUE(tarnlink_->waitForOutput("Start failed: Address already in use"));
  EXPECT_TRUE(tarnlink_->waitForOutput("Start failed: tarnlinkd died (exit code 1)"));

  ::setenv("DISPLAY", ":4711", 1);
  Program blind({TARNLINK}, kNoVariables, Program::Errors::passedOn);
  EXPECT_EQ(blind.wait(), 1);
  EXPECT_EQ(count(blind, "\n"), 1);
  EXPECT_EQ(count(blind, "No display"), 1);
}

}  // namespace
}  // namespace tarnlink

#include <desktop_program_test.moc>
