// A server under test as a process of its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace tarnlink::bench {

/// Runs from the constructor, which returns when the server has written "Listening", to the
/// destructor. Its standard error goes to the bench's. Throws std::runtime_error.
class ServerProcess {
 public:
  static constexpr std::chrono::seconds kPatience{5};

  explicit ServerProcess(const std::vector<std::string>& argv);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  /// From its start to the word.
  std::chrono::duration<double, std::milli> startTime() const { return startTime_; }
  /// Now, shared pages included.
  double residentMebibytes() const;
  /// So far, of all threads: how often one went to sleep, and so woke up again.
  long voluntarySwitches() const;

 private:
  bool hasSaidListening();

  pid_t pid_ = 0;
  int output_ = -1;
  std::chrono::duration<double, std::milli> startTime_{};
};

}  // namespace tarnlink::bench
