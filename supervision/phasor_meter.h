// The fundamental in the samples of some channels: frequency, rms values and angles, from 40 to 70
// Hz and off the nominal frequency, too.
//
// A Blackman-Harris window of 0.2 s keeps direct current, harmonics and the mirror image at
// negative frequency, all 40 Hz away at least, below 1/30,000. The angle that the fundamental gains
// from a window to one 0.05 s later gives its frequency.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tarnlink {

struct Phasor {
  double rms = 0;    ///< Of the fundamental, in the channel's unit.
  double angle = 0;  ///< Degrees above -180 and up to 180, relative to channel 0.
};

struct Phasors {
  std::optional<double> frequency;  ///< Hz; nothing where there is no fundamental to be found.
  std::vector<Phasor> channels;     ///< All zero then.
};

/// Not to be shared between threads. Holds 2 kB per channel and 1,000 samples a second.
class PhasorMeter {
 public:
  /// Samples a second that are measured.
  static constexpr double kLeastRate = 400;
  static constexpr double kMostRate = 100'000;

  /// `scales`: units per count, one a channel. Beyond the rates above nothing is ever measured.
  PhasorMeter(std::vector<double> scales, double samplesPerSecond);

  /// The next sample: a value for each channel.
  void add(std::span<const std::int32_t> values);
  /// Samples are missing: those before are of no use any more.
  void restart();

  /// Of the last quarter of a second. False, and nothing is changed, until there is one.
  bool measure(Phasors& phasors) const;

 private:
  using Complex = std::complex<double>;

  std::span<const std::int32_t> samplesOf(std::size_t channel) const;
  /// The window's amplitude and angle at a frequency, from the sample `from` on.
  Complex transform(std::size_t channel, std::size_t from, double frequency) const;
  std::size_t liveliestChannel() const;
  std::optional<double> frequencyOf(std::size_t channel) const;

  std::vector<double> scales_;
  double rate_;
  std::vector<double> window_;  // Sums up to 1.
  std::size_t shift_ = 0;       // Samples between the two windows.
  std::size_t length_ = 0;      // Samples kept: one window and the shift.
  // Each channel's samples twice, one behind the other, so that the last ones are always in a row.
  std::vector<std::int32_t> samples_;
  std::size_t at_ = 0;
  std::size_t held_ = 0;
};

}  // namespace tarnlink
