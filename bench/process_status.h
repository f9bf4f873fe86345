// What the kernel counts of processes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tarnlink::bench {

/// The number behind a name in the status file of a process or of one of its threads.
inline double statusNumber(const std::filesystem::path& folder, const std::string& name) {
  std::ifstream status(folder / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
  }
  throw std::runtime_error("no " + name + " in " + folder.string());
}

/// Resident memory now, shared pages included.
inline double residentMebibytes(pid_t pid) {
  return statusNumber("/proc/" + std::to_string(pid), "VmRSS") / 1024;
}

/// How often a thread has gone to sleep so far, and so has been woken.
inline double sleepsOf(const std::filesystem::path& task) {
  return statusNumber(task, "voluntary_ctxt_switches");
}
/// The same of all threads of a process.
inline double sleepsOf(pid_t pid) {
  double all = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    all += sleepsOf(task.path());
  }
  return all;
}

}  // namespace tarnlink::bench
