// A program that runs beside this one, ends with it, and is listened to.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarnlink {

/// Ends the waiting of another thread. wake() is safe from any thread and stays in force until the
/// waiting one has seen it.
class WakeSignal {
 public:
  /// Throws std::system_error where no descriptor is to be had.
  WakeSignal();
  ~WakeSignal();
  WakeSignal(const WakeSignal&) = delete;
  WakeSignal& operator=(const WakeSignal&) = delete;

  void wake();
  /// True when woken within the time; without a time it waits for as long as it takes.
  bool wait(std::optional<std::chrono::milliseconds> limit);

  int descriptor() const { return reader_; }
  /// Forgets what has been seen.
  void clear();

 private:
  int reader_ = -1;
  int writer_ = -1;
};

/// A line that is longer, in octets, is handed out in pieces of this size.
inline constexpr std::size_t kMaxOutputLine = std::size_t{64} * 1024;

/// One thread at a time.
class BackgroundProcess {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Event { line, woken, timedOut, ended };

  /// Starts argv[0], a path, in this program's environment and a process group of its own, with
  /// default signal handling. Its standard error is this program's; its standard input is open, and
  /// empty, for as long as this object lives: a program that watches it ends with this one however
  /// that ends.
  static boost::system::result<std::unique_ptr<BackgroundProcess>> start(
      const std::vector<std::string>& argv);

  /// Kills the program when it still runs.
  virtual ~BackgroundProcess() = default;

  /// Waits for a line of its standard output (put into `line`, without its end), for the signal,
  /// for the deadline, or for its end, which comes after its last line. A program that has closed
  /// its output counts as ending: the call then waits for its end alone.
  virtual Event next(std::string& line, WakeSignal& wake,
                     std::optional<Clock::time_point> deadline) = 0;

  /// Asks it to end: SIGTERM.
  virtual void terminate() = 0;
  virtual void kill() = 0;

  /// Once ended: "exit code 1" or "signal 9".
  virtual std::string end() const = 0;
};

}  // namespace tarnlink
