#include "supervision/phasor_meter.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <utility>

namespace tarnlink {
namespace {

constexpr double kTurn = 2 * std::numbers::pi;
constexpr double kWindowSeconds = 0.2;
constexpr double kShiftSeconds = 0.05;
// What is looked for, and in which steps: a step is half a bin of the window.
constexpr double kLowest = 35;
constexpr double kHighest = 75;
constexpr double kStep = 2.5;
constexpr int kRefinements = 3;
/// Less is rounding noise. Counts.
constexpr double kLeastRms = 0.5;
/// Less may be what leaks through the window from other frequencies. Of the channel's rms value.
constexpr double kLeastShare = 0.001;

std::vector<double> blackmanHarris(std::size_t size) {
  std::vector<double> window(size);
  for (std::size_t i = 0; i < size; ++i) {
    const double x = kTurn * static_cast<double>(i) / static_cast<double>(size);
    window[i] =
        0.35875 - 0.48829 * std::cos(x) + 0.14128 * std::cos(2 * x) - 0.01168 * std::cos(3 * x);
  }
  const double sum = std::accumulate(window.begin(), window.end(), 0.0);
  for (double& weight : window) weight /= sum;
  return window;
}

double degreesOf(std::complex<double> of, std::complex<double> relativeTo) {
  const double degrees = std::arg(of * std::conj(relativeTo)) * 360 / kTurn;
  return degrees <= -180 ? 180 : degrees;
}

}  // namespace

PhasorMeter::PhasorMeter(std::vector<double> scales, double samplesPerSecond)
    : scales_(std::move(scales)), rate_(samplesPerSecond) {
  if (!(rate_ >= kLeastRate && rate_ <= kMostRate) || scales_.empty()) return;
  window_ = blackmanHarris(static_cast<std::size_t>(std::lround(rate_ * kWindowSeconds)));
  shift_ = static_cast<std::size_t>(std::lround(rate_ * kShiftSeconds));
  length_ = window_.size() + shift_;
  samples_.resize(scales_.size() * length_ * 2);
}

void PhasorMeter::add(std::span<const std::int32_t> values) {
  if (length_ == 0) return;
  for (std::size_t channel = 0; channel < std::min(values.size(), scales_.size()); ++channel) {
    std::int32_t* const samples = &samples_[channel * length_ * 2];
    samples[at_] = samples[at_ + length_] = values[channel];
  }
  at_ = (at_ + 1) % length_;
  held_ = std::min(held_ + 1, length_);
}

void PhasorMeter::restart() {
  held_ = 0;
}

std::span<const std::int32_t> PhasorMeter::samplesOf(std::size_t channel) const {
  return std::span(samples_).subspan(channel * length_ * 2 + at_, length_);
}

PhasorMeter::Complex PhasorMeter::transform(std::size_t channel, std::size_t from,
                                            double frequency) const {
  const auto samples = samplesOf(channel).subspan(from, window_.size());
  const Complex step = std::polar(1.0, -kTurn * frequency / rate_);
  Complex turn = 1;
  double real = 0;
  double imaginary = 0;
  for (std::size_t i = 0; i < window_.size(); ++i) {
    const double weighted = window_[i] * samples[i];
    real += weighted * turn.real();
    imaginary += weighted * turn.imag();
    turn = {turn.real() * step.real() - turn.imag() * step.imag(),
            turn.real() * step.imag() + turn.imag() * step.real()};
  }
  return {2 * real, 2 * imaginary};
}

std::size_t PhasorMeter::liveliestChannel() const {
  std::size_t found = 0;
  double most = -1;
  for (std::size_t channel = 0; channel < scales_.size(); ++channel) {
    double sum = 0;
    double squares = 0;
    for (const double value : samplesOf(channel)) {
      sum += value;
      squares += value * value;
    }
    const double variance = squares - sum * sum / static_cast<double>(length_);
    if (variance > most) {
      most = variance;
      found = channel;
    }
  }
  return found;
}

std::optional<double> PhasorMeter::frequencyOf(std::size_t channel) const {
  double squares = 0;
  for (const double value : samplesOf(channel)) squares += value * value;
  const double rms = std::sqrt(squares / static_cast<double>(length_));
  double frequency = 0;
  double most = std::max(kLeastRms, kLeastShare * rms) * std::numbers::sqrt2;
  for (double candidate = kLowest; candidate <= kHighest; candidate += kStep) {
    const double amplitude = std::abs(transform(channel, 0, candidate));
    if (amplitude <= most) continue;
    most = amplitude;
    frequency = candidate;
  }
  const double shiftSeconds = static_cast<double>(shift_) / rate_;
  for (int i = 0; frequency != 0 && i < kRefinements; ++i) {
    const Complex first = transform(channel, 0, frequency);
    // At this frequency the second window's angle would be ahead by whole turns of the shift.
    const Complex expected = std::polar(1.0, -kTurn * frequency * shiftSeconds);
    const Complex second = transform(channel, shift_, frequency) * expected;
    frequency += std::arg(second * std::conj(first)) / (kTurn * shiftSeconds);
    if (frequency < kLowest || frequency > kHighest) return std::nullopt;
  }
  // A peak beyond the range is seen by its slope only, and refining leads anywhere.
  const bool isPeak = frequency != 0 && std::abs(transform(channel, 0, frequency)) >= 0.999 * most;
  return isPeak ? std::optional(frequency) : std::nullopt;
}

bool PhasorMeter::measure(Phasors& phasors) const {
  if (length_ == 0 || held_ < length_) return false;
  const std::size_t liveliest = liveliestChannel();
  phasors.frequency = frequencyOf(liveliest);
  phasors.channels.assign(scales_.size(), {});
  if (!phasors.frequency) return true;
  Complex reference = transform(0, shift_, *phasors.frequency);
  if (std::abs(reference) < kLeastRms * std::numbers::sqrt2) {
    reference = transform(liveliest, shift_, *phasors.frequency);
  }
  for (std::size_t channel = 0; channel < scales_.size(); ++channel) {
    const Complex amplitude = transform(channel, shift_, *phasors.frequency);
    const double rms = std::abs(amplitude) / std::numbers::sqrt2;
    if (rms < kLeastRms) continue;
    phasors.channels[channel] = {rms * scales_[channel], degreesOf(amplitude, reference)};
  }
  return true;
}

}  // namespace tarnlink
