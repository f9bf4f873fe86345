// The desktop program as its users meet it: on a display, in a status bar, with its real bridge.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "client/bridge_client.h"
#include "tests/desktop/desktop_session.h"
#include "tests/desktop/status_bar_host.h"
#include "tests/support/network_namespace.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::DesktopSession;
using test::NetworkNamespace;
using test::SessionProgram;
using test::StatusBarHost;
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

std::string codeIn(const test::ShownMenu& menu) {
  return menu.find("Pairing-Code").label.substr(std::string("Pairing-Code: ").size(), 6);
}

BridgeClient pairedClient(const std::string& code) {
  auto client = BridgeClient::connect({"127.0.0.1"}, kPort).value();
  EXPECT_TRUE(Json::parse(client.authenticate(code).value().text)["ok"]);
  return client;
}

TEST_F(DesktopProgram, TheMenuInAStatusBarDrivesTheBridge) {
  start(DesktopSession::Bus::session);
  StatusBarHost bar(false);
  launch();
  for (int i = 0; i < 10; ++i) {
    bar.serve();
    std::this_thread::sleep_for(100ms);
  }
  EXPECT_NE(tarnlink_->await("No status bar yet"), "") << "a watcher alone shows nothing";
  bar.isHostRegistered = true;
  bar.awaitItem();
  auto menu = bar.awaitMenu("Läuft");
  Texts shown;
  for (const auto& item : menu.items) shown.push_back((item.isEnabled ? "" : "x") + item.label);
  const auto code = codeIn(menu);
  EXPECT_EQ(shown, (Texts{"xKorvel 61850 Tarnlink " TARNLINK_VERSION, "", "x● Läuft  ·  Port 8765",
                          "Pairing-Code: " + code + "  (klicken zum Kopieren)", "",
                          "xNetzwerk-Interface:", "  bus__0 — bus__0", "  ied0 — ied0", "",
                          "x✓ BPF-Zugriff aktiv", "", "Beenden"}));

  bar.sendEvent(menu.find("Pairing-Code").id, "clicked");
  std::string copied;
  for (int i = 0; i < 50 && copied != code; ++i) {
    copied = DesktopSession::run("xclip -o -selection clipboard 2>&1");
  }
  EXPECT_EQ(copied, code);

  auto client = pairedClient(code);
  for (const char* situation : {"clicked", "clicked again"}) {
    SCOPED_TRACE(situation);
    bar.sendEvent(menu.find("ied0").id, "clicked");
    EXPECT_EQ(Json::parse(client.await("bridge_status").value().text)["activeInterface"], "ied0");
    menu = bar.awaitMenu("ied0", true);
    EXPECT_FALSE(menu.find("bus__0").isChecked);
  }

  // An interface that goes is dropped with a refresh, but not under the user's hands.
  bar.openMenu();
  NetworkNamespace::removeLink("bus_0");
  std::this_thread::sleep_for(6s);
  EXPECT_NE(bar.menu().find("bus__0").id, 0);
  bar.sendEvent(0, "closed");
  menu = bar.awaitMenu("keine Interfaces gefunden");
  std::this_thread::sleep_for(6s);
  EXPECT_EQ(bar.menu().find("Beenden").id, menu.find("Beenden").id)
      << "items of a menu that was drawn anew have other ids: an unchanged one is left alone";

  bar.sendEvent(menu.find("Beenden").id, "clicked");
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
  EXPECT_EQ(tarnlink_->count("[BridgeServer] Stopped"), 1);
}

TEST_F(DesktopProgram, WithoutAStatusBarAWindowShowsWhatTheMenuHas) {
  start(DesktopSession::Bus::session);
  StatusBarHost bar(false);
  const auto awaitWindow = [](bool isShown) {
    std::string window;
    for (int i = 0; i < 150; ++i) {
      StatusBarHost::serve();
      window = DesktopSession::run("xdotool search --onlyvisible --name 'Tarnlink' 2>&1");
      if (window.empty() != isShown) break;
      std::this_thread::sleep_for(100ms);
    }
    return window;
  };
  const auto begin = std::chrono::steady_clock::now();
  launch({TARNLINK, "--language", "en"});
  auto window = awaitWindow(true);
  ASSERT_NE(window, "");
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 9s) << "a status bar may still come";
  DesktopSession::run("xdotool windowfocus --sync " + window + " key alt+F4");
  EXPECT_EQ(awaitWindow(false), "");

  SessionProgram second({TARNLINK});
  window = awaitWindow(true);
  EXPECT_NE(window, "") << "a second start shows the first";
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
  const auto menus = [] {
    return DesktopSession::run("xdotool search --onlyvisible --class tarnlink getwindowgeometry");
  };
  for (int i = 0; i < 50 && menus().find("Geometry: 3") == std::string::npos; ++i) {
    DesktopSession::run("xdotool mousemove 12 12 click 1");
    std::this_thread::sleep_for(200ms);
  }
  DesktopSession::run("xdotool key ctrl+q");
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
}

/// The user nobody, whose programs hold no capability, and a prompt that the test answers.
class DesktopProgramWithoutAccess : public DesktopProgram {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to act for another user";
    start(DesktopSession::Bus::session);
    bar_ = std::make_unique<StatusBarHost>();
    folder_ = session_->folder() / "programs";
    fs::create_directory(folder_);
    fs::permissions(session_->folder(), fs::perms(0777));
    for (const std::string file : {TARNLINK, TARNLINKD, TARNLINK_CAPTURE_ACCESS}) {
      fs::copy_file(file, folder_ / fs::path(file).filename());
    }
    std::ofstream(folder_ / "pkexec") << "#!/bin/sh\ncd " << session_->folder().string()
                                      << "\necho \"$@\" >asked\n"
                                         "until [ -s answer ]; do sleep 0.05; done\n"
                                         "exit $(cat answer)\n";
    fs::permissions(folder_ / "pkexec", fs::perms(0755));
    ::setenv("PATH", (folder_.string() + ":/usr/bin:/bin").c_str(), 1);
    auto argv = test::kAsNobody;
    argv.push_back((folder_ / "tarnlink").string());
    launch(argv);
  }

  /// Agrees to the question, and does as the administrator what the prompt then asks for.
  void consent() {
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "the question";
    std::string asked;
    for (int i = 0; i < 200 && asked.empty(); ++i) {
      std::ifstream file(session_->folder() / "asked");
      std::getline(file, asked);
      std::this_thread::sleep_for(50ms);
    }
    ASSERT_EQ(asked, "--disable-internal-agent " + helper());
    ASSERT_EQ(std::system(("PKEXEC_UID=65534 " + helper()).c_str()), 0);
    std::ofstream(session_->folder() / "answer") << "0\n";
    ASSERT_TRUE(DesktopSession::answerAlert("Return")) << "what became of it";
  }

  /// Whether a subscription starts a capture.
  bool captures() {
    auto client = pairedClient(codeIn(bar_->awaitMenu("Läuft")));
    const auto answer = client.ask({{"cmd", "subscribe_goose"}}, "bridge_status");
    return Json::parse(answer.value().text).value("isCapturing", false);
  }

  std::string helper() const { return (folder_ / "tarnlink-capture-access").string(); }

  std::unique_ptr<StatusBarHost> bar_;
  fs::path folder_;
};

TEST_F(DesktopProgramWithoutAccess, ConsentAtLaunchMakesTheBridgeCapture) {
  consent();
  bar_->awaitItem();
  EXPECT_FALSE(bar_->awaitMenu("✓ BPF-Zugriff aktiv").find("✓ BPF-Zugriff aktiv").isEnabled);
  EXPECT_TRUE(captures());
}

TEST_F(DesktopProgramWithoutAccess, AskedToEndDuringTheQuestionItStartsNothing) {
  ASSERT_FALSE(DesktopSession::run("xdotool search --sync --onlyvisible --class tarnlink").empty());
  tarnlink_->terminate();
  EXPECT_EQ(tarnlink_->awaitEnd(), 0);
  EXPECT_EQ(tarnlink_->count(""), 0) << "no bridge and no icon were tried";
}

TEST_F(DesktopProgramWithoutAccess, TheRunningBridgeFollowsWhateverWayAccessComesAndGoes) {
  ASSERT_TRUE(DesktopSession::answerAlert("Escape"));
  bar_->awaitItem();
  EXPECT_FALSE(captures());
  bar_->sendEvent(bar_->menu().find("⚠ BPF-Zugriff einrichten…").id, "clicked");
  consent();
  bar_->awaitMenu("✓ BPF-Zugriff aktiv");
  EXPECT_TRUE(captures());
  ASSERT_EQ(std::system((helper() + " --remove").c_str()), 0);
  bar_->awaitMenu("⚠ BPF-Zugriff einrichten…");
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
