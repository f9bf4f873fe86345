// Port to child processes: tools of the system, each run to its end.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tarnlink {

/// Octets kept of each of a program's two outputs. What it writes beyond them is read and dropped,
/// so that it does not block, and `isTruncated` says so.
inline constexpr std::size_t kMaxProcessOutput = std::size_t{256} * 1024;

/// How a program ended and what it wrote until then.
struct ProcessOutcome {
  int exitStatus = 0;  ///< 0 when a signal ended it.
  int signal = 0;      ///< The signal that ended it, or 0.
  std::string out;     ///< Standard output, as it came.
  std::string err;     ///< Standard error, as it came.
  bool isTruncated = false;

  bool succeeded() const { return exitStatus == 0 && signal == 0; }

  /// The one number that a shell makes of both: a signal counts as 128 and its number.
  int shellStatus() const { return signal == 0 ? exitStatus : 128 + signal; }
};

/// Runs programs. Tests script it.
class ProcessRunner {
 public:
  virtual ~ProcessRunner() = default;

  /// Runs the program argv[0], an absolute path, and blocks until it has ended. The program gets
  /// empty input, the three standard descriptors alone, default signal handling, a process group
  /// of its own and a fixed small environment: the user's could lead a privileged tool astray.
  /// Processes that it leaves behind are not waited for. Fails with the system's error when the
  /// program cannot be started, with operation_canceled after cancel() and with timed_out for one
  /// that was ended because it took too long. Safe from any thread; calls do not wait for others.
  virtual boost::system::result<ProcessOutcome> run(const std::vector<std::string>& argv) = 0;

  /// Ends the running program with all of its group, and fails every later run(). Safe from any
  /// thread, also while run() blocks another one; does not wait.
  virtual void cancel() = 0;
};

/// One that really starts programs. A program that is cancelled, or still runs after `limit`, gets
/// half a second to end after SIGTERM, then SIGKILL; one that cannot be killed because it runs as
/// another user is left to itself after another half second. Throws std::system_error where no
/// descriptor is to be had.
std::unique_ptr<ProcessRunner> makeProcessRunner(std::chrono::milliseconds limit);

}  // namespace tarnlink
