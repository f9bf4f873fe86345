#include "bench/server_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace tarnlink::bench {
namespace {

using Clock = std::chrono::steady_clock;

/// The number behind a name in one of the kernel's status files.
long statusNumber(const std::filesystem::path& file, const std::string& name) {
  std::ifstream status(file);
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  }
  throw std::runtime_error("no " + name + " in " + file.string());
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& argv) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  output_ = ends[0];
  std::vector<char*> words;
  for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const auto begin = Clock::now();
  const int failed = ::posix_spawn(&pid_, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  if (failed != 0 || !hasSaidListening()) {
    throw std::runtime_error(argv[0] + " does not listen");
  }
  startTime_ = Clock::now() - begin;
}

ServerProcess::~ServerProcess() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  ::close(output_);
}

bool ServerProcess::hasSaidListening() {
  std::string said;
  while (said.find("Listening") == std::string::npos) {
    pollfd ready{output_, POLLIN, 0};
    char buffer[1024];
    constexpr int kMilliseconds = std::chrono::milliseconds(kPatience).count();
    if (::poll(&ready, 1, kMilliseconds) != 1) return false;
    const ssize_t count = ::read(output_, buffer, sizeof buffer);
    if (count <= 0) return false;
    said.append(buffer, static_cast<std::size_t>(count));
  }
  return true;
}

double ServerProcess::residentMebibytes() const {
  const auto file = std::filesystem::path("/proc") / std::to_string(pid_) / "status";
  return static_cast<double>(statusNumber(file, "VmRSS")) / 1024;
}

long ServerProcess::voluntarySwitches() const {
  long all = 0;
  const auto tasks = std::filesystem::path("/proc") / std::to_string(pid_) / "task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    all += statusNumber(task.path() / "status", "voluntary_ctxt_switches");
  }
  return all;
}

}  // namespace tarnlink::bench
