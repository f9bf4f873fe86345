#include "supervision/phasor_meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "supervision/sample_layout.h"

namespace tarnlink::test {
namespace {

constexpr double kTurn = 2 * std::numbers::pi;

/// Channel i has its own rms and angle; harmonics and direct current are of a distorted network.
struct Signal {
  double frequency = 50;
  double start = 0;  // Turns.
  bool isDistorted = false;
  std::vector<double> rms{100'000, 100'000, 3'000, 500};  // Counts.
  std::vector<double> angles{0, -120, 120, 179};

  std::vector<std::int32_t> at(double seconds) const {
    std::vector<std::int32_t> values;
    for (std::size_t i = 0; i < rms.size(); ++i) {
      const double turns = frequency * seconds + start + angles[i] / 360;
      double value = std::cos(kTurn * turns);
      if (isDistorted) {
        value += 0.1 * std::cos(kTurn * 2 * turns) + 0.2 * std::cos(kTurn * 3 * turns + 1) + 0.3;
      }
      values.push_back(static_cast<std::int32_t>(std::lround(value * rms[i] * std::sqrt(2))));
    }
    return values;
  }
};

TEST(PhasorMeter, FortyToSeventyHertz) {
  for (const double rate : {4000.0, 4800.0, 14400.0}) {
    for (const double frequency : {40.0, 44.7, 49.98, 50.0, 50.0137, 56.25, 60.0, 63.9, 70.0}) {
      for (const bool isDistorted : {false, true}) {
        SCOPED_TRACE(testing::Message() << rate << " " << frequency << " " << isDistorted);
        const Signal signal{.frequency = frequency, .start = 0.3, .isDistorted = isDistorted};
        PhasorMeter meter({1, 1, 0.001, 1}, rate);
        Phasors phasors;
        int samples = 0;
        while (!meter.measure(phasors)) meter.add(signal.at(samples++ / rate));
        EXPECT_EQ(samples, std::lround(rate / 4));
        for (int i = 0; i < 77; ++i) meter.add(signal.at(samples++ / rate));
        ASSERT_TRUE(meter.measure(phasors));
        ASSERT_TRUE(phasors.frequency);
        EXPECT_NEAR(*phasors.frequency, frequency, 0.001);
        for (std::size_t i = 0; i < 4; ++i) {
          const double expected = signal.rms[i] * (i == 2 ? 0.001 : 1);
          EXPECT_NEAR(phasors.channels[i].rms, expected, expected * 0.001);
          EXPECT_NEAR(phasors.channels[i].angle, signal.angles[i], 0.05);
        }
      }
    }
  }
}

TEST(PhasorMeter, DeadChannels) {
  Phasors phasors;
  for (const bool isAllDead : {true, false}) {
    const Signal signal{.rms = {0, isAllDead ? 0.0 : 500.0}, .angles = {0, 77}};
    PhasorMeter meter({1, 1}, 4000);
    for (int i = 0; i < 1000; ++i) meter.add(signal.at(i / 4000.0));
    ASSERT_TRUE(meter.measure(phasors));
    EXPECT_EQ(phasors.frequency.has_value(), !isAllDead);
    EXPECT_EQ(phasors.channels[0].rms, 0);
    EXPECT_NEAR(phasors.channels[1].rms, signal.rms[1], 0.5);
    EXPECT_EQ(phasors.channels[1].angle, 0);
  }
}

TEST(PhasorMeter, OtherFrequenciesAreNone) {
  Phasors phasors;
  for (const double frequency : {0.0, 25.0, 32.0, 78.0}) {
    const Signal signal{.frequency = frequency};
    PhasorMeter meter({1, 1, 1, 1}, 4000);
    for (int i = 0; i < 1000; ++i) meter.add(signal.at(i / 4000.0));
    ASSERT_TRUE(meter.measure(phasors));
    EXPECT_FALSE(phasors.frequency) << frequency << " " << *phasors.frequency;
  }
}

TEST(PhasorMeter, AGapStartsAnewAndStrangeRatesMeasureNothing) {
  const Signal signal;
  Phasors phasors;
  PhasorMeter meter({1, 1, 1, 1}, 4000);
  for (int i = 0; i < 1200; ++i) meter.add(signal.at(i / 4000.0));
  EXPECT_TRUE(meter.measure(phasors));
  meter.restart();
  for (int i = 0; i < 999; ++i) meter.add(signal.at(i / 4000.0));
  EXPECT_FALSE(meter.measure(phasors));
  for (const double rate : {0.0, 100.0, 1e9, std::nan("")}) {
    PhasorMeter strange({1}, rate);
    for (int i = 0; i < 100; ++i) strange.add(signal.at(i / 4000.0));
    EXPECT_FALSE(strange.measure(phasors));
  }
}

TEST(SampleLayout, ValueAndQualityPairs) {
  const SampleLayout known = SampleLayout::of(64);
  EXPECT_EQ(known.name, "9-2LE");
  ASSERT_EQ(known.channels.size(), 8U);
  EXPECT_EQ(known.channels[3].name + known.channels[3].unit, "INA");
  EXPECT_EQ(known.channels[3].scale, 0.001);
  EXPECT_EQ(known.channels[4].name + known.channels[4].unit, "VAV");
  EXPECT_EQ(known.channels[4].scale, 0.01);
  const SampleLayout other = SampleLayout::of(24);
  ASSERT_EQ(other.channels.size(), 3U);
  EXPECT_EQ(other.name + other.channels[2].name + other.channels[2].unit, "3");
  EXPECT_TRUE(SampleLayout::of(12).channels.empty());
  EXPECT_EQ(SampleLayout::of(8000).channels.size(), SampleLayout::kMaxChannels);
  const goosestack::Bytes samples{0, 0, 0, 1, 0, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0xFE, 0x80, 0, 0x20, 0};
  EXPECT_EQ(sampleValue(samples, 1), -2);
  EXPECT_EQ(sampleQuality(samples, 1), 0x80002000);
}

}  // namespace
}  // namespace tarnlink::test
