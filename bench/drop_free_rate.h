// The highest rate at which a receiver loses no frame.
#pragma once

#include <cstdio>
#include <string>

#include "bench/wire_receivers.h"
#include "bench/wire_traffic.h"

namespace tarnlink::bench {

/// Steps towards it with short probes, so that several receivers can take turns, and then proves
/// the rate found over a longer time.
class DropFreeRate {
 public:
  static constexpr std::chrono::milliseconds kProbe{700};
  static constexpr std::chrono::seconds kProof{10};
  static constexpr int kProofs = 4;
  static constexpr double kBackOff = 0.9;  ///< After a proof that failed.

  DropFreeRate(std::string name, Receiver& receiver)
      : name_(std::move(name)), receiver_(receiver) {}

  /// Flat out first; after a loss half-way between what passed and what failed.
  void probe(FrameFlood& flood, ByteView frame) {
    const double rate = fails_ == 0 ? FrameFlood::kFlatOut : (passes_ + fails_) / 2;
    const auto sent = run(flood, frame, rate, kProbe);
    if (isWhole_) {
      passes_ = std::max(passes_, sent.rate);
    } else {
      fails_ = fails_ == 0 ? sent.rate : std::min(fails_, rate);
    }
  }

  /// Gives 0 when no rate tried lost nothing.
  double prove(FrameFlood& flood, ByteView frame) {
    for (int proof = 0; proof < kProofs; ++proof) {
      const bool isFlatOut = fails_ == 0;
      const auto sent = run(flood, frame, isFlatOut ? FrameFlood::kFlatOut : passes_, kProof);
      if (isWhole_) return sent.rate;
      fails_ = sent.rate;
      passes_ = std::min(passes_, sent.rate) * kBackOff;
    }
    return 0;
  }

 private:
  FrameFlood::Sent run(FrameFlood& flood, ByteView frame, double rate,
                       std::chrono::duration<double> time) {
    receiver_.start();
    const auto sent = flood.run(frame, rate, time);
    const auto arrived = waitForFrames(receiver_, sent.frames);
    receiver_.stop();
    isWhole_ = arrived == sent.frames;
    std::fprintf(stderr, "%s: %.1f s at %.0f frames/s, %lld of %llu lost\n", name_.c_str(),
                 time.count(), sent.rate, static_cast<long long>(sent.frames - arrived),
                 static_cast<unsigned long long>(sent.frames));
    return sent;
  }

  std::string name_;
  Receiver& receiver_;
  bool isWhole_ = false;
  double passes_ = 0;  // The highest rate without loss so far.
  double fails_ = 0;   // The lowest rate with a loss so far; 0 while there was none.
};

}  // namespace tarnlink::bench
