#include "tests/desktop/desktop_session.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
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

DesktopSession::DesktopSession(Bus bus) {
  NetworkNamespace::enter();
  fs::create_directories(folder_ / "config");
  // Some tests are about another user.
  for (const char* name : {"", "config"}) fs::permissions(folder_ / name, fs::perms(0777));
  ::setenv("HOME", folder_.path().c_str(), 1);
  ::setenv("XDG_CONFIG_HOME", (folder_ / "config").c_str(), 1);
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::unsetenv("WAYLAND_DISPLAY");

  const auto display = (folder_ / "display").string();
  start({"sh", "-c", "exec Xvfb -displayfd 3 -ac -nolisten tcp -screen 0 800x600x24 3>" + display},
        "");
  for (auto end = std::chrono::steady_clock::now() + kLimit; contentOf(display).empty();) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("Xvfb does not start");
    std::this_thread::sleep_for(10ms);
  }
  ::setenv("DISPLAY", (":" + std::to_string(std::stoi(contentOf(display)))).c_str(), 1);

  const auto address = "unix:path=" + (folder_ / "bus").string();
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  if (bus == Bus::session) {
    writeFile(folder_ / "bus.conf", kBusConfig);
    start({"dbus-daemon", "--config-file=" + (folder_ / "bus.conf").string(),
           "--address=" + address, "--nofork", "--nopidfile", "--print-address=1"},
          "unix:");
  }
  start({"openbox", "--startup", "echo ready"}, "ready");
}

void DesktopSession::start(const std::vector<std::string>& argv, const std::string& says) {
  programs_.push_back(std::make_unique<Program>(argv));
  if (!programs_.back()->waitForOutput(says)) throw std::runtime_error(argv[0] + " does not start");
}

std::string DesktopSession::shell(const std::string& command) {
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
    const auto visible = shell("xdotool search --onlyvisible --class tarnlink 2>/dev/null");
    const auto first = visible.substr(0, visible.find('\n'));
    if (!alert.empty() && first != alert) return true;
    alert = first;
    if (!alert.empty()) shell("xdotool windowfocus " + alert + " key " + key + " 2>/dev/null");
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

int count(const Program& program, const std::string& text) {
  const auto output = program.output();
  int found = 0;
  for (auto at = output.find(text); at != std::string::npos; at = output.find(text, at + 1))
    ++found;
  return found;
}

bool await(const Program& program, const std::string& text, int times) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (count(program, text) < times && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  return count(program, text) >= times;
}

}  // namespace tarnlink::test
