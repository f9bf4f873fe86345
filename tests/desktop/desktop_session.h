// A desktop of the test's own: display, session bus, window manager and user folders, in a private
// network. All of it goes with its object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink::test {

class DesktopSession {
 public:
  enum class Bus { none, session };

  /// Enters the network namespace and sets the environment of this process and its children.
  /// Throws std::runtime_error with what is missing.
  explicit DesktopSession(Bus bus);

  std::filesystem::path operator/(const std::string& name) const { return folder_ / name; }

  /// Waits for a window of the program and presses the key in it; true when that closes it.
  static bool answerAlert(const std::string& key);
  /// What a shell command writes, without the last line end.
  static std::string shell(const std::string& command);

 private:
  void start(const std::vector<std::string>& argv, const std::string& says);

  const ScratchFolder folder_;
  std::vector<std::unique_ptr<Program>> programs_;
};

/// How often the text stands in what the program has written.
int count(const Program& program, const std::string& text);
/// Until that is so often, ten seconds at most.
bool await(const Program& program, const std::string& text, int times = 1);

}  // namespace tarnlink::test
