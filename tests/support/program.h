// A program that runs beside the test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace tarnlink::test {

/// Ends with the object, by SIGTERM, and with the test in any case. One thread. Throws
/// std::runtime_error.
class Program {
 public:
  static constexpr std::chrono::milliseconds kPatience{10'000};

  enum class Errors { kept, passedOn };

  /// What it writes is kept, on standard error too unless that is passed on.
  explicit Program(std::vector<std::string> argv,
                   const std::map<std::string, std::string>& environment = {},
                   Errors errors = Errors::kept);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  /// All that it has written.
  std::string output() const;
  /// Whether there is such a text before the time is up.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds patience = kPatience) const;
  void signal(int number) const;
  /// The exit code, 128 + the signal for a violent end, or -1 when the time is up.
  int wait(std::chrono::milliseconds patience = 3 * kPatience);
  /// SIGTERM, then wait().
  int end();

 private:
  int output_;  // A file in memory.
  pid_t pid_ = -1;
};

}  // namespace tarnlink::test
