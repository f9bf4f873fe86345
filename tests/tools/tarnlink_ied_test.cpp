#include <gmock/gmock.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <string>
#include <vector>

#include "goosestack/ethernet_frame.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch_folder.h"
#include "tools/tarnlink_ied/options.h"
#include "tools/tarnlink_ied/replay.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// A replay against a clock that jumps to whatever is waited for.
class Playback final : CueSource, FrameSink {
 public:
  IedResult<void> play(const ReplayOptions& options) {
    return replay(options, *this, *this, report);
  }
  SendReport report;
  std::vector<Bytes> frames;
  std::vector<std::int64_t> sentAt;  ///< Milliseconds.

 private:
  Clock::time_point now() const override { return now_; }
  Cue waitUntil(std::optional<Clock::time_point> deadline) override {
    now_ = std::max(now_, *deadline);
    return waitsLeft_-- > 0 ? Cue::due : Cue::end;
  }
  IedResult<SinkOutcome> send(ByteView frame) override {
    if (frame.size() > kEthernetHeader + kMtu) return SinkOutcome::tooLong;
    frames.emplace_back(frame.begin(), frame.end());
    sentAt.push_back(now_.time_since_epoch() / 1ms);
    return SinkOutcome::sent;
  }

  static constexpr std::size_t kEthernetHeader = 14, kMtu = 1500;
  Clock::time_point now_{};
  int waitsLeft_ = 1000;
};

struct Recorded {
  std::int64_t milliseconds;
  Bytes octets;
  std::uint32_t originalLength = 0;  ///< 0: as captured.
};

class Replay : public ::testing::Test {
 protected:
  /// The path of a capture file with the frames.
  std::string capture(const std::vector<Recorded>& frames, int linkType = DLT_EN10MB) const {
    const std::string path = folder_ / "capture.pcap";
    const PcapHandle writer(pcap_open_dead(linkType, 65536));
    pcap_dumper_t* file = pcap_dump_open(writer.get(), path.c_str());
    for (const auto& [time, octets, original] : frames) {
      pcap_pkthdr header{};
      header.ts.tv_sec = 1'700'000'000 + time / 1000;
      header.ts.tv_usec = time % 1000 * 1000;
      header.caplen = static_cast<bpf_u_int32>(octets.size());
      header.len = original != 0 ? original : header.caplen;
      pcap_dump(reinterpret_cast<u_char*>(file), &header, octets.data());
    }
    pcap_dump_close(file);
    return path;
  }
  test::ScratchFolder folder_;
};

Bytes tagged(std::uint8_t last) {
  return EthernetFrame::build(MacAddress{1, 0x0C, 0xCD, 1, 0, 1}, MacAddress{2, 0, 0, 0, 0, 1}, 100,
                              4, Bytes(50, last));
}

TEST_F(Replay, KeepsTheRecordedSpacing) {
  const auto path = capture({{0, tagged(1)},
                             {40, tagged(2)},
                             {30, tagged(3)},
                             {50, tagged(4)},
                             {3'000'000'000, tagged(5)}});
  constexpr std::int64_t kMonth = 30LL * 24 * 3600 * 1000;
  const std::pair<double, std::vector<std::int64_t>> cases[] = {
      // The third frame was recorded out of order; the last gap is a damaged time stamp.
      {1, {0, 40, 40, 50, 50 + kMonth}},
      {0.5, {0, 80, 80, 100, 100 + kMonth * 2}},
      {0, {0, 0, 0, 0, 0}},
  };
  for (const auto& [speed, sentAt] : cases) {
    Playback playback;
    ASSERT_TRUE(playback.play({path, speed, false, {}}));
    EXPECT_EQ(playback.sentAt, sentAt) << speed;
    EXPECT_EQ(playback.frames.at(4), tagged(5));
  }
}

TEST_F(Replay, LoopGoesRoundUntilTheCount) {
  Playback playback;
  ASSERT_TRUE(playback.play({capture({{0, tagged(1)}, {10, tagged(2)}}), 1, true, 5}));
  EXPECT_THAT(playback.sentAt, ElementsAre(0, 10, 1010, 1020, 2020));
}

TEST_F(Replay, FramesThatCannotPassAreCountedAndTheRestIsSent) {
  Playback playback;
  ASSERT_TRUE(playback.play(
      {capture({{0, Bytes(1515)}, {1, tagged(1), 500}, {2, Bytes(13)}, {3, tagged(2)}}),
       1,
       false,
       {}}));
  EXPECT_EQ(playback.report.text(),
            "Sent 1 frame; skipped 1 too long for the link, 2 not whole in the capture");
  const auto path = capture({{0, tagged(1)}, {1, tagged(2)}});
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
  Playback cut;
  EXPECT_FALSE(cut.play({path, 1, false, {}}));
  EXPECT_EQ(cut.report.text(), "Sent 1 frame");
}

TEST_F(Replay, WhatGivesNothingToPlayIsRefused) {
  const auto errorOf = [](const std::string& path) {
    const auto result = Playback().play({path, 1, true, {}});
    return result ? "" : result.error().text;
  };
  EXPECT_THAT(errorOf(capture({{0, Bytes(60)}}, DLT_RAW)), HasSubstr("RAW frames, not Ethernet"));
  EXPECT_THAT(errorOf("/nonexistent"), HasSubstr("No such file"));
  EXPECT_THAT(errorOf("/proc/self/comm"), HasSubstr("/proc/self/comm"));
  // Round after round without a frame that could be sent.
  EXPECT_NE(errorOf(capture({{0, Bytes(1515)}})), "");
}

TEST(IedCommandLine, RefusesWhatDoesNotFit) {
  const std::vector<std::vector<const char*>> cases = {
      {"--count", "0"},
      {"--count", "-1"},
      {"--no-goose"},
      {"--no-goose", "--listen", "--interval", "9"},
      {"--sv-rate", "4000"},
      {"--sv", "--sv-rate", "50001"},
      {"--sv", "--replay", "f"},
      {"--speed", "2"},
      {"--loop"},
      {"--replay", "f", "--interval", "20"},
      {"--replay", "f", "--speed", "-1"},
      {"--replay", "f", "--speed", "nan"},
  };
  for (auto arguments : cases) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    arguments.insert(arguments.begin(), {"tarnlink-ied", "--interface", "a"});
    const auto parsed = parseIedOptions(static_cast<int>(arguments.size()), arguments.data());
    const auto* end = std::get_if<CommandLineEnd>(&parsed);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->exitCode, kExitUsage);
    EXPECT_NE(end->text, "");
  }
}

using InterfaceSinkTest = test::ProcessBusTest;

TEST_F(InterfaceSinkTest, FramesArriveOctetForOctetAndTroublesOfTheLinkAreTold) {
  test::FrameRecorder recorder(kBus, "vlan 100");
  auto sink = InterfaceSink::open(kIed);
  ASSERT_TRUE(sink) << sink.error().text;
  ASSERT_EQ(*sink->send(tagged(7)), SinkOutcome::sent);
  EXPECT_EQ(recorder.frames(1).at(0).octets, tagged(7));
  EXPECT_EQ(*sink->send(Bytes(2000)), SinkOutcome::tooLong);
  test::NetworkNamespace::setUp(kIed, false);
  EXPECT_EQ(*sink->send(tagged(1)), SinkOutcome::linkDown);
  test::NetworkNamespace::removeLink(kIed);
  EXPECT_THAT(sink->send(tagged(1)).error().text, HasSubstr(kIed));
  EXPECT_THAT(InterfaceSink::open(kIed).error().text, HasSubstr("no interface"));
}

}  // namespace
}  // namespace tarnlink
