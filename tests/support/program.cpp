#include "tests/support/program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tarnlink::test {

Program::Program(std::vector<std::string> argv, std::filesystem::path outputFile,
                 std::map<std::string, std::string> environment)
    : outputFile_(std::move(outputFile)) {
  std::vector<char*> pointers;
  for (auto& argument : argv) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const int file =
      ::open(outputFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0) throw std::runtime_error("no " + outputFile_.string());
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    ::execvp(pointers.front(), pointers.data());
    ::_exit(127);
  }
  ::close(file);
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

std::string Program::output() const {
  std::ifstream file(outputFile_);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool Program::waitForOutput(const std::string& text, std::chrono::milliseconds patience) const {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (output().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int Program::wait() {
  int status = -1;
  if (pid_ > 0) ::waitpid(pid_, &status, 0);
  pid_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Program::end() {
  if (pid_ > 0) ::kill(pid_, SIGTERM);
  return wait();
}

}  // namespace tarnlink::test
