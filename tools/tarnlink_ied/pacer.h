// Waiting for the moment at which a frame is due.
#pragma once

#include <chrono>

namespace tarnlink {

/// The players' only clock; tests bring one that jumps.
class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~Pacer() = default;
  virtual Clock::time_point now() const = 0;
  /// Returns at `deadline`, at once when that has passed: true. False as soon as the program has
  /// been asked to end, whether it waits or not.
  virtual bool waitUntil(Clock::time_point deadline) = 0;
};

/// Real time; SIGINT and SIGTERM ask the program to end. Blocks both signals, so it is made in the
/// main thread before any other thread starts, and lives as long as the program.
class SignalPacer final : public Pacer {
 public:
  SignalPacer();
  Clock::time_point now() const override { return Clock::now(); }
  bool waitUntil(Clock::time_point deadline) override;

 private:
  bool isAskedToEnd_ = false;
};

}  // namespace tarnlink
