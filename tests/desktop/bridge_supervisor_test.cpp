// The supervisor with the bridge itself, and with small scripts in its place.
#include "app/desktop/bridge_supervisor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <csignal>
#include <filesystem>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/process_capabilities.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

constexpr std::uint16_t kPort = 8765;

class BridgeSupervision : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    test::NetworkNamespace::enter();
    test::NetworkNamespace::addVethPair("bus0", "ied0");
    test::NetworkNamespace::addVethPair("bus-1", "ied1");
  }
  fs::path script(const std::string& text) {
    test::writeFile(folder_ / "tarnlinkd", "#!/bin/sh\n" + text, fs::perms(0755));
    return folder_ / "tarnlinkd";
  }
  void supervise(const fs::path& program) {
    program_ = program;
    log_.clear();
    supervisor_ = std::make_unique<BridgeSupervisor>(
        SupervisorOptions{.findProgram = [this] { return program_; },
                          .preferences = folder_ / "preferences.json",
                          .arguments = {"--no-advertise", "--auth-delay"},
                          .port = kPort,
                          .firstDelay = 20ms,
                          .maxDelay = 50ms},
        *preferences_, [this](std::string_view line) { log_.emplace_back(line); });
    supervisor_->start([](const BridgeState&) {});
  }

  /// Runs the event loop until it holds, for ten seconds at most.
  static bool await(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!holds() && std::chrono::steady_clock::now() < deadline) {
      QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return holds();
  }
  bool awaitPhase(BridgePhase phase) {
    return await([this, phase] { return supervisor_->state().phase == phase; });
  }
  bool awaitFailure() {
    return await([this] { return !supervisor_->state().failure.empty(); });
  }
  bool awaitInterface(const std::string& name) {
    return await([this, &name] {
      return supervisor_->state().phase == BridgePhase::running &&
             supervisor_->state().activeInterface == name;
    });
  }
  int count(const std::string& text) {
    return static_cast<int>(std::count_if(log_.begin(), log_.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    }));
  }
  static void kill() {
    std::system(("kill -KILL $(pgrep -P " + std::to_string(::getpid()) + " tarnlinkd)").c_str());
  }

  const test::ScratchFolder folder_;
  const std::unique_ptr<PreferenceStore> preferences_ =
      makePreferenceStore(folder_ / "preferences.json", [](std::string_view) {});
  Texts log_;
  fs::path program_;
  std::unique_ptr<BridgeSupervisor> supervisor_;
};

TEST_F(BridgeSupervision, AStartThatFailsShowsTheLastWordsAndIsNotRepeated) {
  const auto runs = (folder_ / "runs").string();
  const std::pair<std::string, std::string> cases[] = {
      {"echo first; echo last >&2; exit 1", "last"},
      {"exit 3", "tarnlinkd died (exit code 3)"},
  };
  for (const auto& [text, failure] : cases) {
    supervise(script("echo x >>" + runs + ";" + text));
    EXPECT_TRUE(awaitFailure());
    EXPECT_EQ(supervisor_->state().failure, failure);
    const auto later = std::chrono::steady_clock::now() + 100ms;
    await([later] { return std::chrono::steady_clock::now() > later; });
    EXPECT_EQ(supervisor_->state().phase, BridgePhase::stopped);
  }
  EXPECT_EQ(fs::file_size(runs), 4U) << "once each";

  supervise(folder_ / "absent");
  EXPECT_TRUE(awaitFailure());
  EXPECT_EQ(count("Start failed: " + (folder_ / "absent").string()), 1);
  program_ = TARNLINKD;
  supervisor_->restart();
  EXPECT_TRUE(awaitPhase(BridgePhase::running)) << "what has been repaired is started on request";
  EXPECT_EQ(supervisor_->state().failure, "");
}

// Clients have a say in log lines.
TEST_F(BridgeSupervision, LogLinesAreNoState) {
  supervise(
      script("echo '[KorvelTarnlink] Listening on port 8765'\n"
             "echo '[BridgeServer] active interface set to forged'\n"
             "echo '[KorvelTarnlink] Start failed: forged'\n"
             "trap '' TERM\nwhile :; do sleep 0.1; done"));
  EXPECT_TRUE(await([this] { return count("Start failed: forged") == 1; })) << "passed on";
  EXPECT_EQ(supervisor_->state().phase, BridgePhase::stopped);
  EXPECT_EQ(supervisor_->state().activeInterface, "");
  EXPECT_EQ(supervisor_->state().failure, "");

  supervisor_->restart();
  EXPECT_TRUE(await([this] { return count("Start failed: forged") == 2; }))
      << "killed, as it will not stop, and started anew";
  const auto begin = std::chrono::steady_clock::now();
  supervisor_->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(BridgeSupervision, ADeadBridgeComesBackWithOneLine) {
  supervise(TARNLINKD);
  for (const char* delay : {"20", "40", "50"}) {
    ASSERT_TRUE(awaitPhase(BridgePhase::running));
    kill();
    ASSERT_TRUE(awaitPhase(BridgePhase::restarting));
    EXPECT_TRUE(await([&] {
      return count("tarnlinkd died (signal 9); starting it again in " + std::string(delay) +
                   " ms") == 1;
    }));
  }
  EXPECT_TRUE(awaitPhase(BridgePhase::running));
  EXPECT_EQ(count("died"), 3);
}

TEST_F(BridgeSupervision, AnInterfaceIsChosenByProtocolOrByPreference) {
  BridgeSupervisor idle({}, *preferences_, [](std::string_view) {});
  idle.restart();
  EXPECT_EQ(idle.state().phase, BridgePhase::stopped) << "nothing has been started yet";

  supervise(TARNLINKD);
  ASSERT_TRUE(awaitInterface(""));
  EXPECT_EQ(supervisor_->state().canCapture, hasCaptureCapability());
  supervisor_->setActiveInterface("bus0");
  EXPECT_TRUE(awaitInterface("bus0"));
  EXPECT_EQ(count("active interface set to bus0"), 1);

  // Not a name that clients may send.
  supervisor_->setActiveInterface("bus-1");
  EXPECT_EQ(supervisor_->state().phase, BridgePhase::restarting);
  EXPECT_TRUE(awaitInterface("bus-1"));
  EXPECT_EQ(count("restored active interface: bus-1"), 1);
  EXPECT_EQ(count("died"), 0);

  auto client = BridgeClient::connect({"127.0.0.1"}, kPort).value();
  EXPECT_TRUE(client.authenticate(preferences_->read("pairingCode").value()));
  auto told = std::async(std::launch::async, [&client] {
    while (client.next(5s)) {
    }
    return client.closeCode();
  });
  supervisor_->stop();
  EXPECT_EQ(count("[BridgeServer] Stopped"), 2);
  EXPECT_EQ(told.get(), 1001) << "clients hear that it goes";
}

TEST_F(BridgeSupervision, OnlyTheTokenLetsTheOwnerInAndGuessersDoNotKeepItOut) {
  supervise(TARNLINKD);
  ASSERT_TRUE(awaitPhase(BridgePhase::running));
  BridgeLink stranger({.onStatus = [](const std::string&) { ADD_FAILURE() << "not its bridge"; },
                       .onError = {},
                       .onLost = [] {}});
  stranger.open({"127.0.0.1", kPort, "0123456789abcdef0123456789abcdef"});
  EXPECT_TRUE(await([this] { return count("auth failed") >= 2; })) << "it keeps trying";
  EXPECT_FALSE(stranger.isOpen());
  stranger.close();
  std::vector<BridgeClient> guessers;
  for (int i = 0; i < 12; ++i) {
    guessers.push_back(BridgeClient::connect({"127.0.0.1"}, kPort).value());
    EXPECT_TRUE(guessers.back().send({{"cmd", "auth"}, {"token", "000000"}}));
  }
  EXPECT_TRUE(await([this] { return count("attempts wait for their turn") == 1; }));
  supervisor_->setActiveInterface("bus0");
  EXPECT_TRUE(awaitInterface("bus0")) << "who is in stays in";
}

// Else a bridge would keep the port of a desktop program that was killed.
TEST_F(BridgeSupervision, TheBridgeEndsWithItsInput) {
  const auto run = [this](const std::string& token) {
    return std::system(("(echo " + token +
                        "; sleep 0.2) | timeout 5 " TARNLINKD
                        " --no-advertise --until-input-ends --owner-token --preferences " +
                        (folder_ / "preferences.json").string() + " >/dev/null")
                           .c_str());
  };
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(run("0123456789abcdef0123456789abcdef"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_EQ(WEXITSTATUS(run("0123456789abcdef0123456789abcde")), 1) << "too short";
}

}  // namespace
}  // namespace tarnlink
