#include "bench/background_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#if !defined(__GLIBC__)
extern char** environ;
#endif

namespace tarnlink {
namespace {

using boost::system::error_code;
using boost::system::result;
using std::chrono::milliseconds;

// How often to look for the end of a program whose output has ended: mostly it is there at once.
constexpr milliseconds kEndPeriod{5};

error_code errorOf(int number) {
  return {number, boost::system::system_category()};
}

int timeoutFor(std::optional<BackgroundProcess::Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - BackgroundProcess::Clock::now());
  return static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, 60'000));
}

/// Two ends that children do not inherit, except where they are given one.
struct Pipe {
  Pipe() = default;
  ~Pipe() {
    closeEnd(reader);
    closeEnd(writer);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  bool open() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    reader = ends[0];
    writer = ends[1];
    return true;
  }
  static void closeEnd(int& end) {
    if (end >= 0) ::close(std::exchange(end, -1));
  }

  int reader = -1, writer = -1;
};

class SpawnPlan {
 public:
  SpawnPlan() {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&actions_);
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  // In its own group, so that Ctrl-C at a terminal reaches this program alone, which then ends the
  // other in order.
  int prepare(int input, int output) {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    for (const int fixed : {SIGKILL, SIGSTOP}) ::sigdelset(&all, fixed);
    int error = ::posix_spawnattr_setsigmask(&attributes_, &none);
    if (error == 0) error = ::posix_spawnattr_setsigdefault(&attributes_, &all);
    if (error == 0) error = ::posix_spawnattr_setpgroup(&attributes_, 0);
    if (error == 0) {
      error = ::posix_spawnattr_setflags(
          &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    if (error == 0) {
      error = ::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
    }
    if (error == 0) {
      error = ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    }
#if defined(__GLIBC__)
    // Libraries may hold descriptors without the close-on-exec flag.
    if (error == 0) {
      error = ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
#endif
    return error;
  }

  int start(pid_t& pid, const std::vector<std::string>& argv) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    return ::posix_spawn(&pid, arguments[0], &actions_, &attributes_, arguments.data(), environ);
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

class PosixBackgroundProcess final : public BackgroundProcess {
 public:
  error_code begin(const std::vector<std::string>& argv) {
    if (argv.empty()) return errorOf(EINVAL);
    if (!input_.open() || !output_.open()) return errorOf(errno);
    SpawnPlan plan;
    int error = plan.prepare(input_.reader, output_.writer);
    if (error == 0) error = plan.start(pid_, argv);
    Pipe::closeEnd(input_.reader);
    Pipe::closeEnd(output_.writer);
    return errorOf(error);
  }

  ~PosixBackgroundProcess() override {
    if (pid_ <= 0 || hasEnded_) return;
    kill();
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  Event next(std::string& line, WakeSignal& wake,
             std::optional<Clock::time_point> deadline) override {
    while (true) {
      if (takeLine(line)) return Event::line;
      if (output_.reader < 0 && reap()) return Event::ended;
      if (deadline && Clock::now() >= *deadline) return Event::timedOut;
      std::array<pollfd, 2> watched{{{output_.reader, POLLIN, 0}, {wake.descriptor(), POLLIN, 0}}};
      int limit = timeoutFor(deadline);
      const auto period = static_cast<int>(kEndPeriod.count());
      if (output_.reader < 0 && (limit < 0 || limit > period)) limit = period;
      if (::poll(watched.data(), watched.size(), limit) <= 0) continue;
      if (watched[1].revents != 0) {
        wake.clear();
        return Event::woken;
      }
      read();
    }
  }

  void terminate() override {
    if (!hasEnded_) ::kill(pid_, SIGTERM);
  }
  void kill() override {
    if (!hasEnded_) ::kill(-pid_, SIGKILL);
  }

  std::string end() const override {
    if (WIFSIGNALED(status_)) return "signal " + std::to_string(WTERMSIG(status_));
    return "exit code " + std::to_string(WEXITSTATUS(status_));
  }

 private:
  bool takeLine(std::string& line) {
    auto length = buffer_.find('\n');
    std::size_t taken = length + 1;
    if (length == std::string::npos) {
      const bool isLast = output_.reader < 0 && !buffer_.empty();
      if (!isLast && buffer_.size() < kMaxOutputLine) return false;
      length = taken = std::min(buffer_.size(), kMaxOutputLine);
    }
    line = buffer_.substr(0, length);
    buffer_.erase(0, taken);
    return true;
  }

  void read() {
    std::array<char, 4096> block;
    const ssize_t count = ::read(output_.reader, block.data(), block.size());
    if (count > 0) buffer_.append(block.data(), static_cast<std::size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) Pipe::closeEnd(output_.reader);
  }

  bool reap() {
    if (!hasEnded_) hasEnded_ = ::waitpid(pid_, &status_, WNOHANG) == pid_;
    return hasEnded_;
  }

  pid_t pid_ = -1;
  Pipe input_, output_;
  std::string buffer_;
  bool hasEnded_ = false;
  int status_ = 0;
};

}  // namespace

WakeSignal::WakeSignal() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  reader_ = ends[0];
  writer_ = ends[1];
}

WakeSignal::~WakeSignal() {
  ::close(reader_);
  ::close(writer_);
}

void WakeSignal::wake() {
  // A full pipe wakes as well.
  const ssize_t written = ::write(writer_, "", 1);
  static_cast<void>(written);
}

void WakeSignal::clear() {
  std::array<char, 64> seen;
  while (::read(reader_, seen.data(), seen.size()) > 0) {
  }
}

bool WakeSignal::wait(std::optional<milliseconds> limit) {
  const auto deadline = limit ? std::optional(BackgroundProcess::Clock::now() + *limit)
                              : std::optional<BackgroundProcess::Clock::time_point>();
  while (true) {
    pollfd watched{reader_, POLLIN, 0};
    if (::poll(&watched, 1, timeoutFor(deadline)) > 0) {
      clear();
      return true;
    }
    if (deadline && BackgroundProcess::Clock::now() >= *deadline) return false;
  }
}

result<std::unique_ptr<BackgroundProcess>> BackgroundProcess::start(
    const std::vector<std::string>& argv) {
  auto process = std::make_unique<PosixBackgroundProcess>();
  if (const auto error = process->begin(argv)) return error;
  return std::unique_ptr<BackgroundProcess>(std::move(process));
}

}  // namespace tarnlink
