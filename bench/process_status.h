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

/// How often threads of the process have gone to sleep so far, and so have been woken.
inline double sleepsOf(pid_t pid) {
  double all = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    all += statusNumber(task.path(), "voluntary_ctxt_switches");
  }
  return all;
}

}  // namespace tarnlink::bench
