// A program that runs beside the test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tarnlink::test {

/// Goes with the object, and with the test in any case. What it writes goes to the file. One
/// thread. Throws std::runtime_error.
class Program {
 public:
  Program(std::vector<std::string> argv, std::filesystem::path outputFile,
          std::map<std::string, std::string> environment = {});
  ~Program() { end(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  std::string output() const;
  bool waitForOutput(const std::string& text,
                     std::chrono::milliseconds patience = std::chrono::seconds(10)) const;
  /// Its exit status; -1 after a signal.
  int wait();
  /// SIGTERM, then wait().
  int end();

 private:
  std::filesystem::path outputFile_;
  pid_t pid_ = 0;
};

}  // namespace tarnlink::test
