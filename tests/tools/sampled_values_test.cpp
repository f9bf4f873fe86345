// The stream of Sampled Values, as an independent decoder reads it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "stack/pcap_access.h"
#include "tools/tarnlink_ied/sampled_values.h"
#include "tools/tarnlink_ied/sv_sender.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

constexpr MacAddress kSource{0x02, 0, 0, 0, 0, 0x0A};

TEST(SampleClock, DueTimesNeverDriftAndLongStallsAreLeftOut) {
  const SampleClock::Instant start{};
  const SampleClock thirds(start, 3);
  EXPECT_EQ(thirds.due(1) - start, 333'333'333ns);
  EXPECT_EQ(thirds.due(3'000'000'000) - start, 1'000'000'000s);
  const SampleClock clock(start, 4000);
  EXPECT_EQ(clock.next(4000, start + 1999ms), 4000U);
  const auto resumed = clock.next(4000, start + 5s);
  EXPECT_GE(clock.due(resumed), start + 5s);
  EXPECT_LE(clock.due(resumed), start + 5s + 250us);
}

#ifdef TARNLINK_TSHARK
/// The layers of each of the samples' frames.
std::vector<Json> readByTshark(SampledValues& values,
                               std::initializer_list<std::uint64_t> samples) {
  const std::string path = std::filesystem::temp_directory_path() /
                           ("sampled_values_test_" + std::to_string(getpid()) + ".pcap");
  const PcapHandle handle(pcap_open_dead(DLT_EN10MB, kSnapshotLength));
  pcap_dumper_t* dump = pcap_dump_open(handle.get(), path.c_str());
  for (const auto number : samples) {
    const auto frame = values.frame(number);
    const auto size = static_cast<bpf_u_int32>(frame.size());
    const pcap_pkthdr header{{}, size, size};
    pcap_dump(reinterpret_cast<u_char*>(dump), &header, frame.data());
  }
  pcap_dump_close(dump);
  const std::string command = "tshark -o sv.decode_data_as_phsmeas:TRUE -r " + path +
                              " -T json --no-duplicate-keys 2>/dev/null";
  FILE* output = popen(command.c_str(), "r");
  std::string text;
  std::array<char, 4096> part{};
  while (const auto size = std::fread(part.data(), 1, part.size(), output)) {
    text.append(part.data(), size);
  }
  EXPECT_EQ(pclose(output), 0);
  std::filesystem::remove(path);
  std::vector<Json> layers;
  for (const auto& packet : Json::parse(text)) {
    layers.push_back(packet.at("_source").at("layers"));
  }
  return layers;
}

/// The values of one channel in the samples read.
std::int64_t channel(const Json& asdu, std::size_t number) {
  return std::stoll(asdu.at("PhsMeas1").at("sv.meas_value").at(number).get<std::string>());
}

TEST(SampledValuesOnTheWire, IndependentDecoderReadsThemAsMeant) {
  SvStreamConfig config;
  config.confRev = 0x01020304;
  config.smpSynch = 2;
  SampledValues values(config, kSource);
  // The last sample of a second, and a quarter of a period into the next one.
  const auto layers = readByTshark(values, {3999, 4020});
  ASSERT_EQ(layers.size(), 2U);
  const char* counters[] = {"3999", "20"};
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const Json& tag = layers[i].at("vlan");
    const Json& sv = layers[i].at("sv");
    const Json& pdu = sv.at("sv.savPdu_element");
    const Json& asdu = pdu.at("sv.seqASDU_tree").at("sv.ASDU_element");
    EXPECT_EQ(tag.at("vlan.priority"), "4");
    EXPECT_EQ(tag.at("vlan.dei"), "0");
    EXPECT_EQ(tag.at("vlan.id"), "0");
    EXPECT_EQ(sv.at("sv.appid"), "0x4000");
    EXPECT_EQ(sv.at("sv.length"), std::to_string(values.frame(0).size() - 18));
    EXPECT_EQ(pdu.at("sv.noASDU"), "1");
    EXPECT_EQ(asdu.at("sv.svID"), "BAY1MU01");
    EXPECT_EQ(asdu.at("sv.smpCnt"), counters[i]);
    EXPECT_EQ(asdu.at("sv.confRev"), "16909060");
    EXPECT_EQ(asdu.at("sv.smpSynch"), "2");
    for (std::size_t neutral = 3; neutral < 8; neutral += 4) {
      EXPECT_EQ(channel(asdu, neutral), channel(asdu, neutral - 3) + channel(asdu, neutral - 2) +
                                            channel(asdu, neutral - 1));
      EXPECT_EQ(asdu.at("PhsMeas1").at("sv.meas_quality").at(neutral), "0x00002000");
    }
  }
  const Json& crest =
      layers[1].at("sv").at("sv.savPdu_element").at("sv.seqASDU_tree").at("sv.ASDU_element");
  EXPECT_EQ(channel(crest, 4), 8981462);   // 110 kV / sqrt(3) * sqrt(2), in 10 mV.
  EXPECT_EQ(channel(crest, 5), -4490731);  // A third of a period behind: minus half of it.
  EXPECT_EQ(channel(crest, 0), 540420);    // 400 A * sqrt(2) * cos(0.3), in mA.
}
#endif

}  // namespace
}  // namespace tarnlink
