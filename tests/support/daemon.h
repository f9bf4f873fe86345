// The real tarnlinkd as a child of the test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace tarnlink::test {

/// Runs the program with its own preference file in a temporary folder, which goes with the object;
/// so does the process, whatever state it is in. One thread. Throws std::runtime_error.
class Daemon {
 public:
  static constexpr std::chrono::milliseconds kPatience{5'000};

  explicit Daemon(std::vector<std::string> arguments);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Reads log lines until one contains the text. False when the time is up or the log has ended.
  bool waitForLog(const std::string& text, std::chrono::milliseconds patience = kPatience);
  /// All lines read so far.
  const std::vector<std::string>& log() const { return lines_; }

  void signal(int number);
  /// The exit code, 128 + the signal for a violent end, or -1 when the time is up.
  int waitForExit(std::chrono::milliseconds patience = kPatience);

  pid_t pid() const { return pid_; }
  std::filesystem::path preferences() const { return folder_ / "preferences.json"; }

 private:
  bool readLine(std::chrono::steady_clock::time_point deadline);

  std::filesystem::path folder_;
  pid_t pid_ = -1;
  int output_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
};

/// Runs the program to its end and gives all that it wrote, standard error included.
std::string outputOf(std::vector<std::string> arguments, int& exitCode);

}  // namespace tarnlink::test
