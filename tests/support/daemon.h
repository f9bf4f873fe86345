// The real tarnlinkd as a child of the test.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink::test {

/// Runs the program with its own preference file in a temporary folder, which goes with the object;
/// so does the process, whatever state it is in.
class Daemon {
 public:
  explicit Daemon(std::vector<std::string> arguments);
  ~Daemon();

  /// Whether a line with the text comes, behind those that earlier calls found.
  bool waitForLog(const std::string& text, std::chrono::milliseconds patience = Program::kPatience);
  /// All lines so far.
  std::vector<std::string> log() const;

  void signal(int number) const { program_.signal(number); }
  int waitForExit(std::chrono::milliseconds patience = Program::kPatience) {
    return program_.wait(patience);
  }
  pid_t pid() const { return program_.pid(); }
  std::filesystem::path preferences() const { return folder_ / "preferences.json"; }
  /// The pairing code, as --show-pairing-code prints it.
  std::string pairingCode() const;

 private:
  ScratchFolder folder_;
  Program program_;
  std::size_t found_ = 0;  // Lines of the log.
};

/// Runs the program to its end and gives all that it wrote, standard error included.
std::string outputOf(std::vector<std::string> arguments, int& exitCode);

}  // namespace tarnlink::test
