#include "tests/desktop/desktop_session.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QDeadlineTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/support/network_namespace.h"

namespace tarnlink::test {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kLimit = 10s;

// As Debian's, but for every user: the status bar and the program need not be of the same.
constexpr const char* kBusConfig =
    R"(<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/></policy>
</busconfig>)";

SessionProgram::SessionProgram(const std::vector<std::string>& argv) {
  QStringList arguments;
  for (std::size_t i = 1; i < argv.size(); ++i) arguments << QString::fromStdString(argv[i]);
  process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  process_.start(QString::fromStdString(argv[0]), arguments);
  if (!process_.waitForStarted()) throw std::runtime_error(argv[0] + " does not start");
}

SessionProgram::~SessionProgram() {
  process_.kill();
  process_.waitForFinished();
}

std::string SessionProgram::await(const std::string& text) {
  QDeadlineTimer deadline(kLimit);
  do {
    while (process_.canReadLine()) {
      lines_.push_back(process_.readLine().chopped(1).toStdString());
      if (lines_.back().find(text) != std::string::npos) return lines_.back();
    }
  } while (process_.waitForReadyRead(static_cast<int>(deadline.remainingTime())));
  return {};
}

int SessionProgram::awaitEnd() {
  if (process_.state() != QProcess::NotRunning && !process_.waitForFinished(10'000)) return -1;
  while (process_.canReadLine()) lines_.push_back(process_.readLine().chopped(1).toStdString());
  return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
}

int SessionProgram::count(const std::string& text) const {
  return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& line) {
    return line.find(text) != std::string::npos;
  }));
}

DesktopSession::DesktopSession(Bus bus)
    : folder_(fs::path(::testing::TempDir()) / ("desktop." + std::to_string(::getpid()))) {
  NetworkNamespace::enter();
  fs::create_directories(folder_ / "config");
  // One test is about another user.
  fs::permissions(folder_ / "config", fs::perms(0777));
  ::setenv("HOME", folder_.c_str(), 1);
  ::setenv("XDG_CONFIG_HOME", (folder_ / "config").c_str(), 1);
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::unsetenv("WAYLAND_DISPLAY");

  const auto display = start(
      {"/usr/bin/Xvfb", "-displayfd", "1", "-ac", "-nolisten", "tcp", "-screen", "0", "800x600x24"},
      "");
  ::setenv("DISPLAY", (":" + display).c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  if (bus == Bus::session) {
    const auto config = folder_ / "bus.conf";
    std::ofstream(config) << kBusConfig;
    const auto address = start({"/usr/bin/dbus-daemon", "--config-file=" + config.string(),
                                "--address=unix:path=" + (folder_ / "bus").string(), "--nofork",
                                "--nopidfile", "--print-address=1"},
                               "unix:");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  }
  start({"/usr/bin/openbox", "--startup", "echo ready"}, "ready");
}

std::string DesktopSession::start(const std::vector<std::string>& argv, const std::string& says) {
  programs_.push_back(std::make_unique<SessionProgram>(argv));
  const auto line = programs_.back()->await(says);
  if (line.empty()) throw std::runtime_error(argv[0] + " does not start");
  return line;
}

DesktopSession::~DesktopSession() {
  programs_.clear();
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::string DesktopSession::run(const std::string& command) {
  std::string text;
  FILE* pipe = ::popen(("timeout 10 " + command).c_str(), "r");
  for (int c; (c = std::fgetc(pipe)) != EOF;) text += static_cast<char>(c);
  ::pclose(pipe);
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

bool DesktopSession::answerAlert(const std::string& key) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  std::string alert;
  // A key that comes before the window listens is lost, so it is pressed until the window goes.
  while (std::chrono::steady_clock::now() < deadline) {
    const auto visible = run("xdotool search --onlyvisible --class tarnlink 2>/dev/null");
    const auto first = visible.substr(0, visible.find('\n'));
    if (!alert.empty() && first != alert) return true;
    alert = first;
    if (!alert.empty()) run("xdotool windowfocus " + alert + " key " + key + " 2>/dev/null");
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

}  // namespace tarnlink::test
