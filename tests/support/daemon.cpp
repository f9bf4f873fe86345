#include "tests/support/daemon.h"

#include <signal.h>

#include <sstream>
#include <thread>
#include <utility>

namespace tarnlink::test {

namespace {

std::vector<std::string> argvOf(std::vector<std::string> arguments,
                                const std::vector<std::string>& more = {}) {
  arguments.insert(arguments.begin(), TARNLINKD);
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace

Daemon::Daemon(std::vector<std::string> arguments)
    : program_(argvOf(std::move(arguments), {"--preferences", preferences(), "--no-advertise"}), {},
               Program::Errors::passedOn) {}

Daemon::~Daemon() {
  program_.signal(SIGKILL);
  program_.wait();
}

std::vector<std::string> Daemon::log() const {
  std::vector<std::string> lines;
  std::istringstream text(program_.output());
  for (std::string line; std::getline(text, line) && !text.eof();) lines.push_back(line);
  return lines;
}

bool Daemon::waitForLog(const std::string& text, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (true) {
    const auto lines = log();
    while (found_ < lines.size()) {
      if (lines[found_++].find(text) != std::string::npos) return true;
    }
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

std::string Daemon::pairingCode() const {
  constexpr std::size_t kDigits = 6;
  int exitCode = 0;
  return outputOf({"--show-pairing-code", "--preferences", preferences()}, exitCode)
      .substr(0, kDigits);
}

std::string outputOf(std::vector<std::string> arguments, int& exitCode) {
  Program program(argvOf(std::move(arguments)));
  exitCode = program.wait();
  return program.output();
}

}  // namespace tarnlink::test
