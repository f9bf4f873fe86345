// The supervisor with small scripts in the place of the bridge, and with the bridge itself.
#include "app/host/bridge_supervisor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/network_namespace.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kLimit = 10s;  // For anything that is waited for.

/// What the supervisor says, in order: states as "up", "down" and "failed: ...", and log lines.
class Record {
 public:
  void add(std::string text) {
    const std::lock_guard guard(lock_);
    texts_.push_back(std::move(text));
    grown_.notify_all();
  }
  /// The first text that begins so after those that have been awaited; empty when none comes.
  std::string await(std::string_view beginning) {
    std::unique_lock guard(lock_);
    std::string found;
    grown_.wait_for(guard, kLimit, [&] {
      while (next_ < texts_.size() && found.empty()) {
        if (texts_[next_].starts_with(beginning)) found = texts_[next_];
        ++next_;
      }
      return !found.empty();
    });
    return found;
  }
  int count(std::string_view text) {
    const std::lock_guard guard(lock_);
    return static_cast<int>(std::count(texts_.begin(), texts_.end(), text));
  }

 private:
  std::mutex lock_;
  std::condition_variable grown_;
  std::vector<std::string> texts_;
  std::size_t next_ = 0;
};

class BridgeSupervision : public ::testing::Test {
 protected:
  BridgeSupervision() {
    fs::create_directories(folder_);
    preferences_ = makePreferenceStore(folder_ / "preferences.json", [](std::string_view) {});
  }
  ~BridgeSupervision() override {
    supervisor_.reset();
    fs::remove_all(folder_);
  }

  fs::path script(const std::string& text) {
    const auto file = folder_ / "tarnlinkd";
    std::ofstream(file) << "#!/bin/sh\n" << text;
    fs::permissions(file, fs::perms(0755));
    return file;
  }

  void supervise(const fs::path& program) {
    supervisor_ = std::make_unique<BridgeSupervisor>(
        SupervisorOptions{program, folder_ / "preferences.json", 20ms, 50ms}, *preferences_,
        [this](std::string_view line) { record_.add(std::string(line)); });
    supervisor_->start(8765, [this](const BridgeState& state) {
      record_.add(state.isRunning ? "up" : state.failure.empty() ? "down" : "! " + state.failure);
    });
  }

  const fs::path folder_ =
      fs::path(::testing::TempDir()) / ("supervisor." + std::to_string(::getpid()));
  std::unique_ptr<PreferenceStore> preferences_;
  Record record_;
  std::unique_ptr<BridgeSupervisor> supervisor_;
};

const std::string kListening = "echo '[KorvelTarnlink] Listening on port 8765'\n";

TEST_F(BridgeSupervision, AStartThatFailsSaysWhyAndIsNotRepeated) {
  const struct {
    const char* situation;
    std::string text;
    std::string expected;
  } cases[] = {
      {"its own words", "echo '[KorvelTarnlink] Start failed: Address already in use'; exit 1",
       "! Address already in use"},
      {"no words", "echo x >>" + (folder_ / "runs").string() + "; exit 3",
       "! " + (folder_ / "tarnlinkd").string() + " ended at once (exit code 3)"},
      {"killed", "kill -9 $$",
       "! " + (folder_ / "tarnlinkd").string() + " ended at once (signal 9)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    supervise(script(c.text));
    EXPECT_EQ(record_.await("!"), c.expected);
    std::this_thread::sleep_for(100ms);
    supervisor_.reset();
  }
  EXPECT_EQ(fs::file_size(folder_ / "runs"), 2U);

  supervise(folder_ / "absent");
  EXPECT_EQ(record_.await("!"),
            "! " + (folder_ / "absent").string() + ": No such file or directory");
  fs::rename(script(kListening + "read x"), folder_ / "absent");
  supervisor_->restart();
  EXPECT_EQ(record_.await("up"), "up") << "what has been repaired is started on request";
}

TEST_F(BridgeSupervision, ADeadBridgeComesBackWithOneLine) {
  supervise(script(kListening + "echo odd; kill -6 $$"));
  EXPECT_EQ(record_.await("up"), "up");
  EXPECT_EQ(record_.await("odd"), "odd");
  EXPECT_EQ(record_.await("["),
            "[KorvelTarnlink] tarnlinkd died (signal 6); starting it again in 20 ms");
  EXPECT_EQ(record_.await("down"), "down");
  EXPECT_EQ(record_.await("up"), "up");
  EXPECT_TRUE(record_.await("[").ends_with("in 40 ms"));
  EXPECT_TRUE(record_.await("[").ends_with("in 50 ms"));
}

TEST_F(BridgeSupervision, ABridgeThatWillNotStopIsKilled) {
  supervise(script("trap '' TERM\n" + kListening + "while :; do sleep 0.1; done"));
  ASSERT_EQ(record_.await("up"), "up");
  const auto begin = std::chrono::steady_clock::now();
  supervisor_->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  EXPECT_EQ(record_.count("down"), 0);
}

class BridgeSupervisionOnABus : public BridgeSupervision {
 protected:
  static void SetUpTestSuite() {
    test::NetworkNamespace::enter();
    test::NetworkNamespace::addVethPair("bus0", "ied0");
    test::NetworkNamespace::addVethPair("bus-1", "ied1");
  }
};

TEST_F(BridgeSupervisionOnABus, AnInterfaceIsChosenByProtocolOrByPreference) {
  std::mutex lock;
  std::condition_variable changed;
  int done = 0;
  const auto choose = [&](const std::string& name) {
    supervisor_->setActiveInterface(name, [&] {
      const std::lock_guard guard(lock);
      ++done;
      changed.notify_all();
    });
    std::unique_lock guard(lock);
    return changed.wait_for(guard, kLimit, [&] { return done != 0; }) && --done == 0;
  };

  supervise(TARNLINKD);
  ASSERT_EQ(record_.await("up"), "up");
  EXPECT_EQ(supervisor_->activeInterface(), "");
  EXPECT_TRUE(choose("bus0"));
  EXPECT_EQ(supervisor_->activeInterface(), "bus0");
  EXPECT_EQ(record_.await("[BridgeServer] active interface set to"),
            "[BridgeServer] active interface set to bus0");

  // Not a name that clients may send.
  EXPECT_TRUE(choose("bus-1"));
  EXPECT_EQ(record_.await("[BridgeServer] restored"),
            "[BridgeServer] restored active interface: bus-1");
  EXPECT_EQ(record_.await("up"), "up");
  EXPECT_EQ(supervisor_->activeInterface(), "bus-1");

  supervisor_->stop();
  EXPECT_EQ(record_.count("[BridgeServer] Stopped"), 2);
}

// Else a bridge would keep the port of a desktop program that was killed.
TEST_F(BridgeSupervisionOnABus, TheBridgeEndsWithItsInput) {
  const auto run = "sleep 0.2 | timeout 5 " TARNLINKD
                   " --no-advertise --until-input-ends "
                   "--preferences " +
                   (folder_ / "preferences.json").string() + " >/dev/null";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(std::system(run.c_str()), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
}  // namespace tarnlink
