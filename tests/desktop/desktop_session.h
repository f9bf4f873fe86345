// A desktop of the test's own: display, session bus, window manager and user folders, in a private
// network. All of it goes with its object.
#pragma once

#include <QProcess>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tarnlink::test {

/// In front of a command: runs it as the user nobody, without any capability.
inline const std::vector<std::string> kAsNobody{"/usr/bin/setpriv", "--reuid", "65534",
                                                "--regid",          "65534",   "--clear-groups"};

/// A program of the session, whose output can be awaited.
class SessionProgram {
 public:
  explicit SessionProgram(const std::vector<std::string>& argv);
  ~SessionProgram();

  /// The next output line that holds the text; empty when none comes within ten seconds.
  std::string await(const std::string& text);
  /// The exit code; -1 after a signal, and when it does not end within ten seconds.
  int awaitEnd();
  /// All lines so far that hold the text.
  int count(const std::string& text) const;
  void terminate() { process_.terminate(); }

 private:
  QProcess process_;
  std::vector<std::string> lines_;
};

class DesktopSession {
 public:
  enum class Bus { none, session };

  /// Enters the network namespace and sets the environment of this process and its children.
  /// Throws std::runtime_error with what is missing.
  explicit DesktopSession(Bus bus);
  ~DesktopSession();

  const std::filesystem::path& folder() const { return folder_; }

  /// Waits for a window of the program and presses the key in it; true when that closes it.
  static bool answerAlert(const std::string& key);
  /// What a shell command writes, without the last line end.
  static std::string run(const std::string& command);

 private:
  std::string start(const std::vector<std::string>& argv, const std::string& says);

  std::filesystem::path folder_;
  std::vector<std::unique_ptr<SessionProgram>> programs_;
};

}  // namespace tarnlink::test
