// What makes the program act: the clock, and whoever plays with it.
#pragma once

#include <array>
#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <string>

namespace tarnlink {

enum class Cue {
  due,     ///< The deadline has come.
  trip,    ///< The breaker is to change its state.
  change,  ///< Whichever control block is next is to change its state.
  end,     ///< The program is asked to end.
};

/// The program's only clock; tests bring one that jumps.
class CueSource {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~CueSource() = default;
  virtual Clock::time_point now() const = 0;
  /// The next cue, at the latest Cue::due at `deadline`; without one it waits for the others alone.
  /// Those that are there already come before a deadline that has passed.
  virtual Cue waitUntil(std::optional<Clock::time_point> deadline) = 0;
};

/// Real time; SIGINT and SIGTERM end. With an operator, SIGUSR1 is a change, and so are the lines
/// "trip" and "change" on standard input. Other lines are answered with what there is; the end of
/// standard input is none of the program. One at a time: takes the signals over for the life of the
/// process, so it is made in the main thread before any other thread starts. Waits in the main
/// thread.
class OperatorCues final : public CueSource {
 public:
  explicit OperatorCues(bool hasOperator);
  ~OperatorCues() override;
  OperatorCues(const OperatorCues&) = delete;
  OperatorCues& operator=(const OperatorCues&) = delete;

  Clock::time_point now() const override { return Clock::now(); }
  Cue waitUntil(std::optional<Clock::time_point> deadline) override;

  /// Any thread: the program is to end.
  void end();

 private:
  std::optional<Cue> takePending();
  void readLines();
  void takeLine(const std::string& line);

  std::array<int, 2> wakeUp_{-1, -1};  ///< A pipe.
  sigset_t maskOutside_{};             ///< As it was, for the time of waiting.
  bool isWatchingInput_;
  std::string partialLine_;
  std::deque<Cue> lines_;
};

}  // namespace tarnlink
