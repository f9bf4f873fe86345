// posix_spawn(3): unlike fork() it is safe in a program with threads, and it reports a program that
// cannot be executed as an error of its own.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

#include "platform/child_process.h"

namespace tarnlink {
namespace {

using boost::system::error_code;
using boost::system::result;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTerminationGrace{500};  // From SIGTERM to SIGKILL.
constexpr milliseconds kKillGrace{500};         // From SIGKILL to leaving the child to itself.
// How often to look whether the child has ended. Its end mostly shows at once, as the end of its
// outputs; the long period is for one that has left them to others, the short one for the moment
// between the two ends.
constexpr milliseconds kLongPeriod{100};
constexpr milliseconds kShortPeriod{5};

error_code lastError() {
  return {errno, boost::system::system_category()};
}
error_code errorOf(int number) {
  return {number, boost::system::system_category()};
}

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int number() const { return number_; }  ///< Negative when closed; poll() skips those.
  void reset() {
    if (number_ >= 0) ::close(number_);
    number_ = -1;
  }

 private:
  int number_ = -1;
};

struct Pipe {
  Descriptor reader, writer;
};

result<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return lastError();
  Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
  if (::fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) return lastError();
  return pipe;
}

/// What a child writes to one of its outputs.
class Output {
 public:
  explicit Output(Descriptor reader) : reader_(std::move(reader)) {}

  int descriptor() const { return reader_.number(); }
  bool isOpen() const { return reader_.number() >= 0; }
  bool isTruncated() const { return isTruncated_; }
  std::string take() { return std::move(kept_); }

  /// Takes one block; false when there is none for now, or none any more.
  bool read() {
    std::array<char, 16 * 1024> block;
    const ssize_t count = ::read(reader_.number(), block.data(), block.size());
    if (count < 0) return errno == EINTR;
    if (count == 0) {
      reader_.reset();
      return false;
    }
    const auto size = static_cast<std::size_t>(count);
    const std::size_t room = kMaxProcessOutput - kept_.size();
    kept_.append(block.data(), std::min(size, room));
    isTruncated_ = isTruncated_ || size > room;
    return true;
  }

  /// Takes what is there. Others may hold the pipe and go on writing, so not more than is kept.
  void drain() {
    while (isOpen() && !isTruncated_ && read()) {
    }
  }

 private:
  Descriptor reader_;
  std::string kept_;
  bool isTruncated_ = false;
};

struct Child {
  pid_t pid;
  Output out, err;
};

// The two objects that describe a start, freed together.
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

  // Signals that this program ignores or blocks must reach the child: a tool that ignores SIGPIPE
  // or SIGTERM could not be ended.
  int resetSignals() {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    for (const int fixed : {SIGKILL, SIGSTOP}) ::sigdelset(&all, fixed);
    if (const int error = ::posix_spawnattr_setsigmask(&attributes_, &none)) return error;
    if (const int error = ::posix_spawnattr_setsigdefault(&attributes_, &all)) return error;
    if (const int error = ::posix_spawnattr_setpgroup(&attributes_, 0)) return error;
    return ::posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }

  int connect(const Descriptor& out, const Descriptor& err) {
    if (const int error =
            ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0)) {
      return error;
    }
    if (const int error =
            ::posix_spawn_file_actions_adddup2(&actions_, out.number(), STDOUT_FILENO)) {
      return error;
    }
    if (const int error =
            ::posix_spawn_file_actions_adddup2(&actions_, err.number(), STDERR_FILENO)) {
      return error;
    }
#if defined(__GLIBC__)
    // Libraries may hold descriptors without the close-on-exec flag.
    return ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
#else
    return 0;
#endif
  }

  int start(pid_t& pid, const std::vector<std::string>& argv) {
    // /sbin is for the system's tools; messages come untranslated, so that they can be understood.
    static const char* const kEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C",
                                               nullptr};
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    return ::posix_spawn(&pid, arguments[0], &actions_, &attributes_, arguments.data(),
                         const_cast<char* const*>(kEnvironment));
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

result<Child> startChild(const std::vector<std::string>& argv) {
  if (argv.empty()) return errorOf(EINVAL);
  auto out = makePipe();
  if (!out) return out.error();
  auto err = makePipe();
  if (!err) return err.error();
  SpawnPlan plan;
  if (const int error = plan.resetSignals()) return errorOf(error);
  if (const int error = plan.connect(out->writer, err->writer)) return errorOf(error);
  pid_t pid = 0;
  if (const int error = plan.start(pid, argv)) return errorOf(error);
  return Child{pid, Output(std::move(out->reader)), Output(std::move(err->reader))};
}

// Leaves an ended child unreaped: its process group's number is taken as long as it is.
bool hasEnded(pid_t pid) {
  siginfo_t info{};
  const int answer = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
  return (answer == 0 && info.si_pid == pid) || (answer != 0 && errno == ECHILD);
}

bool endsWithin(pid_t pid, milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!hasEnded(pid)) {
    if (Clock::now() >= deadline) return false;
    ::poll(nullptr, 0, static_cast<int>(kShortPeriod.count()));
  }
  return true;
}

void terminate(pid_t pid) {
  ::kill(-pid, SIGTERM);
  bool ended = endsWithin(pid, kTerminationGrace);
  ::kill(-pid, SIGKILL);  // Also what the child itself has left behind in its group.
  ended = ended || endsWithin(pid, kKillGrace);
  if (ended) ::waitpid(pid, nullptr, 0);
}

class PosixProcessRunner final : public ProcessRunner {
 public:
  explicit PosixProcessRunner(milliseconds limit)
      : limit_(limit), cancellation_(makePipe().value()) {}

  result<ProcessOutcome> run(const std::vector<std::string>& argv) override {
    if (isCancelled_) return errorOf(ECANCELED);
    auto child = startChild(argv);
    if (!child) return child.error();
    const int reason = awaitEnd(*child);
    if (reason == 0) return outcomeOf(*child);
    terminate(child->pid);
    return errorOf(reason);
  }

  void cancel() override {
    // Nobody reads the octet, so it ends whatever runs, or is just being started.
    if (isCancelled_.exchange(true)) return;
    const ssize_t written = ::write(cancellation_.writer.number(), "", 1);
    static_cast<void>(written);  // An empty pipe takes it.
  }

 private:
  // 0 when the child has ended, else why it must be: an error number.
  int awaitEnd(Child& child) const {
    const auto deadline = Clock::now() + limit_;
    while (!hasEnded(child.pid)) {
      if (Clock::now() >= deadline) return ETIMEDOUT;
      std::array<pollfd, 3> watched{{{child.out.descriptor(), POLLIN, 0},
                                     {child.err.descriptor(), POLLIN, 0},
                                     {cancellation_.reader.number(), POLLIN, 0}}};
      const bool hasOutputs = child.out.isOpen() || child.err.isOpen();
      const auto period = hasOutputs ? kLongPeriod : kShortPeriod;
      if (::poll(watched.data(), watched.size(), static_cast<int>(period.count())) <= 0) continue;
      if (watched[2].revents != 0) return ECANCELED;
      if (watched[0].revents != 0) child.out.read();
      if (watched[1].revents != 0) child.err.read();
    }
    return 0;
  }

  static result<ProcessOutcome> outcomeOf(Child& child) {
    int status = 0;
    if (::waitpid(child.pid, &status, 0) != child.pid) return lastError();
    child.out.drain();
    child.err.drain();
    return ProcessOutcome{
        .exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 0,
        .signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0,
        .out = child.out.take(),
        .err = child.err.take(),
        .isTruncated = child.out.isTruncated() || child.err.isTruncated(),
    };
  }

  milliseconds limit_;
  Pipe cancellation_;  // Readable once cancelled.
  std::atomic<bool> isCancelled_ = false;
};

}  // namespace

std::unique_ptr<ProcessRunner> makeProcessRunner(milliseconds limit) {
  return std::make_unique<PosixProcessRunner>(limit);
}

}  // namespace tarnlink
