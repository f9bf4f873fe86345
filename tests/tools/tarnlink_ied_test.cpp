#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "goosestack/ethernet_frame.h"
#include "tests/support/network_namespace.h"
#include "tools/tarnlink_ied/options.h"
#include "tools/tarnlink_ied/replay.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr MacAddress kSource = {0x02, 0, 0, 0, 0, 1};

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

/// A capture file that goes with its object.
class TemporaryCapture {
 public:
  explicit TemporaryCapture(const std::vector<Recorded>& frames, int linkType = DLT_EN10MB)
      : path(::testing::TempDir() + "tarnlink_ied_test." + std::to_string(getpid()) + ".pcap") {
    pcap_t* writer = pcap_open_dead(linkType, 65536);
    pcap_dumper_t* file = pcap_dump_open(writer, path.c_str());
    for (const auto& [time, octets, original] : frames) {
      pcap_pkthdr header{};
      header.ts.tv_sec = 1'700'000'000 + time / 1000;
      header.ts.tv_usec = time % 1000 * 1000;
      header.caplen = static_cast<bpf_u_int32>(octets.size());
      header.len = original != 0 ? original : header.caplen;
      pcap_dump(reinterpret_cast<u_char*>(file), &header, octets.data());
    }
    pcap_dump_close(file);
    pcap_close(writer);
  }
  ~TemporaryCapture() { std::remove(path.c_str()); }
  TemporaryCapture(const TemporaryCapture&) = delete;
  TemporaryCapture& operator=(const TemporaryCapture&) = delete;

  const std::string path;
};

Bytes tagged(std::uint8_t last) {
  return EthernetFrame::build(MacAddress{1, 0x0C, 0xCD, 1, 0, 1}, kSource, 100, 4, Bytes(50, last));
}

TEST(Replay, KeepsTheRecordedSpacing) {
  const TemporaryCapture capture({{0, tagged(1)},
                                  {40, tagged(2)},
                                  {30, tagged(3)},
                                  {50, tagged(4)},
                                  {3'000'000'000, tagged(5)}});
  constexpr std::int64_t kMonth = 30LL * 24 * 3600 * 1000;
  const struct {
    double speed;
    std::vector<std::int64_t> sentAt;
  } cases[] = {
      // The third frame was recorded out of order; the last gap is a damaged time stamp.
      {1, {0, 40, 40, 50, 50 + kMonth}},
      {2, {0, 20, 20, 25, 25 + kMonth / 2}},
      {0.5, {0, 80, 80, 100, 100 + kMonth * 2}},
      {0, {0, 0, 0, 0, 0}},
  };
  for (const auto& [speed, sentAt] : cases) {
    SCOPED_TRACE(speed);
    Playback playback;
    ASSERT_TRUE(playback.play({capture.path, speed, false, {}}));
    EXPECT_EQ(playback.sentAt, sentAt);
    EXPECT_EQ(playback.frames.at(4), tagged(5));
  }
}

TEST(Replay, LoopGoesRoundUntilTheCount) {
  const TemporaryCapture capture({{0, tagged(1)}, {10, tagged(2)}});
  Playback playback;
  ASSERT_TRUE(playback.play({capture.path, 1, true, 5}));
  EXPECT_THAT(playback.sentAt, ElementsAre(0, 10, 1010, 1020, 2020));
}

TEST(Replay, FramesThatCannotPassAreCountedAndTheRestIsSent) {
  const TemporaryCapture capture(
      {{0, Bytes(1515)}, {1, tagged(1), 500}, {2, Bytes(13)}, {3, tagged(2)}});
  Playback playback;
  ASSERT_TRUE(playback.play({capture.path, 1, false, {}}));
  EXPECT_EQ(playback.report, (SendReport{.sent = 1, .tooLong = 1, .incomplete = 2, .linkDown = 0}));
  EXPECT_EQ(playback.report.text(),
            "Sent 1 frame; skipped 1 too long for the link, 2 not whole in the capture");
}

TEST(Replay, WhatGivesNothingToPlayIsRefused) {
  const auto errorOf = [](const std::string& path) {
    const auto result = Playback().play({path, 1, true, {}});
    return result ? "" : result.error().text;
  };
  const auto errorOfFrames = [&](const std::vector<Recorded>& frames, int linkType = DLT_EN10MB) {
    return errorOf(TemporaryCapture(frames, linkType).path);
  };
  EXPECT_THAT(errorOfFrames({{0, Bytes(60)}}, DLT_RAW), HasSubstr("RAW frames, not Ethernet"));
  EXPECT_THAT(errorOf("/nonexistent"), HasSubstr("No such file"));
  EXPECT_THAT(errorOf("/proc/self/comm"), HasSubstr("/proc/self/comm"));
  // Round after round without a frame that could be sent.
  EXPECT_NE(errorOfFrames({}), "");
  EXPECT_NE(errorOfFrames({{0, Bytes(1515)}}), "");
}

TEST(Replay, CaptureCutInMidFrameSendsWhatIsWholeAndFails) {
  const TemporaryCapture capture({{0, tagged(1)}, {1, tagged(2)}});
  std::filesystem::resize_file(capture.path, std::filesystem::file_size(capture.path) - 1);
  Playback playback;
  EXPECT_FALSE(playback.play({capture.path, 1, false, {}}));
  EXPECT_EQ(playback.report.sent, 1U);
}

TEST(IedCommandLine, RefusesWhatDoesNotFit) {
  const std::vector<std::vector<const char*>> cases = {
      {"--interface", "a", "--count", "0"},
      {"--interface", "a", "--count", "-1"},
      {"--interface", "a", "--no-goose"},
      {"--interface", "a", "--no-goose", "--listen", "--interval", "9"},
      {"--interface", "a", "--sv-rate", "4000"},
      {"--interface", "a", "--sv", "--sv-rate", "50001"},
      {"--interface", "a", "--sv", "--replay", "f"},
      {"--interface", "a", "--speed", "2"},
      {"--interface", "a", "--loop"},
      {"--interface", "a", "--replay", "f", "--interval", "20"},
      {"--interface", "a", "--replay", "f", "--speed", "-1"},
      {"--interface", "a", "--replay", "f", "--speed", "nan"},
  };
  for (auto arguments : cases) {
    arguments.insert(arguments.begin(), "tarnlink-ied");
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const auto parsed = parseIedOptions(static_cast<int>(arguments.size()), arguments.data());
    ASSERT_TRUE(std::holds_alternative<CommandLineEnd>(parsed));
    EXPECT_EQ(std::get<CommandLineEnd>(parsed).exitCode, kExitUsage);
    EXPECT_NE(std::get<CommandLineEnd>(parsed).text, "");
  }
}

using InterfaceSinkTest = test::ProcessBusTest;

TEST_F(InterfaceSinkTest, TaggedFrameArrivesOctetForOctet) {
  std::array<char, PCAP_ERRBUF_SIZE> errors{};
  const PcapHandle peer(pcap_open_live(kBus, 65536, 1, 10, errors.data()));
  ASSERT_TRUE(peer) << errors.data();
  auto sink = InterfaceSink::open(kIed);
  ASSERT_TRUE(sink) << sink.error().text;
  ASSERT_EQ(*sink->send(tagged(7)), SinkOutcome::sent);
  pcap_pkthdr* header = nullptr;
  const u_char* octets = nullptr;
  Bytes received;
  for (int tries = 0; tries < 100 && received != tagged(7); ++tries) {
    if (pcap_next_ex(peer.get(), &header, &octets) == 1) {
      received.assign(octets, octets + header->caplen);
    }
  }
  EXPECT_EQ(received, tagged(7));
}

TEST_F(InterfaceSinkTest, TroublesOfTheLinkAreTold) {
  auto sink = InterfaceSink::open(kIed);
  ASSERT_TRUE(sink);
  EXPECT_EQ(*sink->send(Bytes(2000)), SinkOutcome::tooLong);
  test::NetworkNamespace::setUp(kIed, false);
  EXPECT_EQ(*sink->send(tagged(1)), SinkOutcome::linkDown);
  test::NetworkNamespace::removeLink(kIed);
  EXPECT_THAT(sink->send(tagged(1)).error().text, HasSubstr(kIed));
  EXPECT_THAT(InterfaceSink::open(kIed).error().text, HasSubstr("no interface"));
}

}  // namespace
}  // namespace tarnlink
