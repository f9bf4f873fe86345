#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "goosestack/goose_pdu.h"
#include "goosestack/real_time_thread.h"
#include "tools/tarnlink_ied/feeder_bay.h"
#include "tools/tarnlink_ied/send_tally.h"
#include "tools/tarnlink_ied/simulation.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;

/// Time that passes only where somebody waits, or stalls; cues at given milliseconds.
class ScriptedCues final : public CueSource {
 public:
  using Script = std::vector<std::pair<std::int64_t, Cue>>;

  explicit ScriptedCues(Script script) : script_(std::move(script)) {}
  Clock::time_point now() const override { return now_; }
  Cue waitUntil(std::optional<Clock::time_point> deadline) override {
    const auto [at, cue] = script_.front();
    const Clock::time_point scripted{std::chrono::milliseconds(at)};
    const bool isDue = deadline && *deadline < scripted;
    now_ = std::max(now_, isDue ? *deadline : scripted);
    if (!isDue) script_.erase(script_.begin());
    return isDue ? Cue::due : cue;
  }
  void stall(Clock::duration duration) { now_ += duration; }

 private:
  Clock::time_point now_{};
  Script script_;
};

/// Writes "3@1500": control block 3 changed after 1,500 ms. The first frame of all fails, and the
/// fourth takes a while.
class RecordingPublisher final : public GoosePublishing {
 public:
  RecordingPublisher(ScriptedCues& cues, std::chrono::milliseconds stall)
      : cues_(cues), stall_(stall) {}
  boost::asio::awaitable<GooseResult<void>> publishStateChange(GoosePublishConfig config) override {
    const auto time = cues_.now().time_since_epoch() / 1ms;
    changes.push_back(std::to_string(config.appId) + "@" + std::to_string(time));
    if (changes.size() == 4) cues_.stall(stall_);
    if (changes.size() == 1) co_return GooseError::sendFailed("link down");
    co_return GooseResult<void>();
  }
  boost::asio::awaitable<void> unpublish(std::optional<std::string>) override { co_return; }
  boost::asio::awaitable<void> stop() override { co_return; }

  std::vector<std::string> changes;

 private:
  ScriptedCues& cues_;
  std::chrono::milliseconds stall_;
};

TEST(Simulation, ChangesComeInRotationOnAGridThatNeitherStallsNorDemandsShift) {
  const struct {
    std::chrono::milliseconds interval, stall;
    ScriptedCues::Script script;
    std::vector<std::string> changes;
  } cases[] = {
      {100ms, 250ms, {{650, Cue::end}}, {"1@0", "2@0", "3@0", "1@100", "2@400", "3@500", "1@600"}},
      {100ms,
       0ms,
       {{130, Cue::trip}, {140, Cue::change}, {250, Cue::end}},
       {"1@0", "2@0", "3@0", "1@100", "1@130", "2@140", "3@200"}},
      {0ms, 0ms, {{5000, Cue::change}, {9000, Cue::end}}, {"1@0", "2@0", "3@0", "1@5000"}},
  };
  for (const auto& [interval, stall, script, changes] : cases) {
    ScriptedCues cues(script);
    const auto publisher = std::make_shared<RecordingPublisher>(cues, stall);
    std::vector<Publication> publications;
    for (auto& block : feederBay("eth1")) publications.push_back({std::move(block), publisher});
    RealTimeThread thread;
    Simulation(std::move(publications), thread.executor(), [](std::string_view) {
    }).run(interval, cues);
    EXPECT_EQ(publisher->changes, changes);
  }
}

TEST(OperatorCues, LinesInPiecesSignalsAndTheDeadlineAreAllHeard) {
  std::array<int, 2> input{};
  ASSERT_EQ(::pipe(input.data()), 0);
  ::dup2(input[0], STDIN_FILENO);
  const auto type = [&](const std::string& text) {
    EXPECT_EQ(::write(input[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  };
  type("trip\n");
  EXPECT_EQ(OperatorCues(false).waitUntil(CueSource::Clock::now()), Cue::due) << "input left alone";
  OperatorCues cues(true);
  type("nonsense\ncha");
  EXPECT_EQ(cues.waitUntil(std::nullopt), Cue::trip);
  EXPECT_EQ(cues.waitUntil(cues.now() + 1ms), Cue::due);
  type("nge\n");
  EXPECT_EQ(cues.waitUntil(std::nullopt), Cue::change);
  ::raise(SIGUSR1);
  EXPECT_EQ(cues.waitUntil(std::nullopt), Cue::change);
  ::close(input[0]);
  ::close(input[1]);
  // The end of the input is no cue, and no reason to spin.
  EXPECT_EQ(cues.waitUntil(cues.now() + 1ms), Cue::due);
  std::thread([&cues] { cues.end(); }).join();
  EXPECT_EQ(cues.waitUntil(std::nullopt), Cue::end);
}

// A replay as fast as possible is never early.
TEST(OperatorCues, ASignalEndsAProgramThatIsAlwaysLate) {
  OperatorCues cues(false);
  ::raise(SIGTERM);
  EXPECT_EQ(cues.waitUntil(cues.now() - 1s), Cue::end);
}

TEST(FeederBay, DatasetsSurviveTheWireAndChangeWithEachState) {
  std::vector<std::size_t> sizes;
  for (auto& block : feederBay("eth1")) {
    std::vector<GooseDataValue> previous;
    for (std::uint32_t state = 0; state < 30; ++state) {
      GoosePdu pdu;
      pdu.allData = block.dataset(state, timeFromUnixSeconds(1'700'000'000.0));
      EXPECT_EQ(GoosePdu::parse(GoosePdu::encode(pdu).value())->allData, pdu.allData);
      EXPECT_NE(pdu.allData, previous) << block.config.goCBRef;
      previous = pdu.allData;
    }
    sizes.push_back(previous.size());
  }
  EXPECT_EQ(sizes, (std::vector<std::size_t>{5, 8, 5}));
}

TEST(SendTally, FailedFramesLeaveTheirPlaceInTheLimitAndTheLastOneEnds) {
  int ends = 0;
  SendTally tally(2, [&ends] { ++ends; });
  EXPECT_TRUE(tally.claim());
  EXPECT_TRUE(tally.claim());
  EXPECT_FALSE(tally.claim());
  tally.count({SendOutcome::Status::failed, "link down"});
  EXPECT_TRUE(tally.claim());
  tally.count({});
  EXPECT_EQ(ends, 0);
  tally.count({});
  EXPECT_EQ(ends, 1);
  EXPECT_FALSE(tally.claim());
  EXPECT_EQ(tally.text(), "Sent 2 frames; 1 could not be sent");
}

}  // namespace
}  // namespace tarnlink
