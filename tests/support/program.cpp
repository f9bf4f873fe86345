#include "tests/support/program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace tarnlink::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPoll{2};

}  // namespace

Program::Program(std::vector<std::string> argv,
                 const std::map<std::string, std::string>& environment, Errors errors)
    : output_(::memfd_create("output", MFD_CLOEXEC)) {
  std::vector<char*> words;
  for (auto& word : argv) words.push_back(word.data());
  words.push_back(nullptr);
  ::fcntl(output_, F_SETFL, O_APPEND);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::dup2(output_, STDOUT_FILENO);
    if (errors == Errors::kept) ::dup2(output_, STDERR_FILENO);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    ::execvp(words.front(), words.data());
    ::_exit(127);
  }
  if (output_ < 0 || pid_ < 0) throw std::runtime_error("cannot start " + argv.front());
}

Program::~Program() {
  end();
  ::close(output_);
}

std::string Program::output() const {
  std::string all;
  std::array<char, 4096> part;
  ssize_t count = 0;
  while ((count = ::pread(output_, part.data(), part.size(), static_cast<off_t>(all.size()))) > 0) {
    all.append(part.data(), static_cast<std::size_t>(count));
  }
  return all;
}

bool Program::waitForOutput(const std::string& text, std::chrono::milliseconds patience) const {
  const auto deadline = Clock::now() + patience;
  while (output().find(text) == std::string::npos) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

void Program::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

int Program::wait(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  int status = 0;
  while (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) return -1;
    std::this_thread::sleep_for(kPoll);
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Program::end() {
  signal(SIGTERM);
  return wait();
}

}  // namespace tarnlink::test
