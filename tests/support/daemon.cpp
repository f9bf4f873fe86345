#include "tests/support/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace tarnlink::test {
namespace {

using Clock = std::chrono::steady_clock;

struct Child {
  pid_t pid;
  int output;
};

Child spawn(const std::vector<std::string>& arguments, bool withErrors) {
  std::vector<char*> argv{const_cast<char*>(TARNLINKD)};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    if (withErrors) ::dup2(ends[1], STDERR_FILENO);
    ::execv(TARNLINKD, argv.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  if (pid < 0) throw std::runtime_error("fork failed");
  return {pid, ends[0]};
}

int exitCodeOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Daemon::Daemon(std::vector<std::string> arguments) {
  char name[] = "/tmp/tarnlink-test-XXXXXX";
  if (::mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
  folder_ = name;
  arguments.insert(arguments.end(), {"--preferences", preferences(), "--no-advertise"});
  const Child child = spawn(arguments, false);
  pid_ = child.pid;
  output_ = child.output;
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(output_);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

bool Daemon::readLine(Clock::time_point deadline) {
  while (true) {
    if (const auto end = partial_.find('\n'); end != std::string::npos) {
      lines_.push_back(partial_.substr(0, end));
      partial_.erase(0, end + 1);
      return true;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd ready{output_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
    char buffer[4096];
    const ssize_t count = ::read(output_, buffer, sizeof buffer);
    if (count <= 0) return false;
    partial_.append(buffer, static_cast<std::size_t>(count));
  }
}

bool Daemon::waitForLog(const std::string& text, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (readLine(deadline)) {
    if (lines_.back().find(text) != std::string::npos) return true;
  }
  return false;
}

void Daemon::signal(int number) {
  ::kill(pid_, number);
}

int Daemon::waitForExit(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pid_ = -1;
  while (readLine(deadline)) {
  }
  return exitCodeOf(status);
}

std::string outputOf(std::vector<std::string> arguments, int& exitCode) {
  const Child child = spawn(arguments, true);
  std::string output;
  char buffer[4096];
  for (ssize_t count; (count = ::read(child.output, buffer, sizeof buffer)) > 0;) {
    output.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(child.output);
  int status = 0;
  ::waitpid(child.pid, &status, 0);
  exitCode = exitCodeOf(status);
  return output;
}

}  // namespace tarnlink::test
