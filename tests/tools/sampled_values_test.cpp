// The stream of Sampled Values, as an independent decoder reads it.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <array>
#include <chrono>
#include <cstdio>

#include "stack/pcap_access.h"
#include "tests/support/scratch_folder.h"
#include "tools/tarnlink_ied/sampled_values.h"
#include "tools/tarnlink_ied/sv_sender.h"

namespace tarnlink {
namespace {

using namespace std::chrono_literals;

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
TEST(SampledValuesOnTheWire, IndependentDecoderReadsThemAsMeant) {
  SvStreamConfig config;
  config.confRev = 0x01020304;
  config.smpSynch = 2;
  SampledValues values(config, {0x02, 0, 0, 0, 0, 0x0A});
  const test::ScratchFolder folder;
  const std::string path = folder / "sv.pcap";
  const goosestack::PcapHandle handle(pcap_open_dead(DLT_EN10MB, goosestack::kSnapshotLength));
  pcap_dumper_t* dump = pcap_dump_open(handle.get(), path.c_str());
  // The last sample of a second, and a quarter of a period into the next one.
  for (const std::uint64_t number : {3999, 4020}) {
    const auto frame = values.frame(number);
    const auto size = static_cast<bpf_u_int32>(frame.size());
    const pcap_pkthdr header{{}, size, size};
    pcap_dump(reinterpret_cast<u_char*>(dump), &header, frame.data());
  }
  pcap_dump_close(dump);
  std::string command = "tshark -o sv.decode_data_as_phsmeas:TRUE -r " + path + " -T fields";
  for (const char* field :
       {"vlan.priority", "vlan.dei", "vlan.id", "sv.appid", "sv.length", "sv.noASDU", "sv.svID",
        "sv.smpCnt", "sv.confRev", "sv.smpSynch", "sv.meas_value", "sv.meas_quality"}) {
    command.append(" -e ").append(field);
  }
  FILE* output = popen((command + " 2>/dev/null").c_str(), "r");
  std::array<char, 4096> text{};
  const auto size = std::fread(text.data(), 1, text.size(), output);
  EXPECT_EQ(pclose(output), 0);
  // 400 A, lagging by 0.3, in mA, and 110 kV / sqrt(3) in 10 mV; each neutral is its phases' sum.
  const std::string head = "4\t0\t0\t0x4000\t106\t1\tBAY1MU01\t";
  const std::string quality = "0x00000000,0x00000000,0x00000000,0x00002000";
  const std::string tail = "\t" + quality + "," + quality + "\n";
  EXPECT_EQ(std::string(text.data(), size),
            head + "3999\t16909060\t2\t-209057,-350687,559744,0,-704677,-7401858,8106536,1" + tail +
                head + "20\t16909060\t2\t540420,-414985,-125435,0,8981462,-4490731,-4490731,0" +
                tail);
}
#endif

}  // namespace
}  // namespace tarnlink
