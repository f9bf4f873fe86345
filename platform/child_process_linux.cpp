// posix_spawn(3): unlike fork() it is safe in a program with threads, and it reports a program that
// cannot be executed as an error of its own. A child's end is awaited by pidfd_open(2), whatever
// the program does with SIGCHLD.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <span>
#include <system_error>

#include "platform/child_process.h"
#include "platform/posix.h"

namespace tarnlink {
namespace {

using boost::system::result;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTerminationGrace{500};  // From SIGTERM to SIGKILL.
constexpr milliseconds kKillGrace{500};         // From SIGKILL to leaving the child to itself.
constexpr milliseconds kLongestPoll = std::chrono::hours(1);

/// What a child writes to one of its outputs.
struct Output {
  UniqueFd reader;
  std::string kept;
  bool isTruncated = false;

  /// Takes one block; false when there is none for now, or none any more.
  bool read() {
    std::array<char, 16 * 1024> block;
    const ssize_t count = ::read(reader.get(), block.data(), block.size());
    if (count < 0) return errno == EINTR;
    if (count == 0) {
      reader.reset();
      return false;
    }
    const auto size = static_cast<std::size_t>(count);
    const std::size_t room = kMaxProcessOutput - kept.size();
    kept.append(block.data(), std::min(size, room));
    isTruncated = isTruncated || size > room;
    return true;
  }

  /// Takes what is there. Others may hold the pipe and go on writing, so not more than is kept.
  void drain() {
    while (reader && !isTruncated && read()) {
    }
  }
};

struct Child {
  pid_t pid = 0;
  UniqueFd end;  // Readable once the child has ended.
  Output out, err;
};

/// False when the time is up.
bool pollUntil(std::span<pollfd> watched, Clock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    const auto period = std::clamp(left, milliseconds(0), kLongestPoll);
    if (::poll(watched.data(), watched.size(), static_cast<int>(period.count())) > 0) return true;
    if (left.count() <= 0) return false;
  }
}

/// Makes the pipe and returns its writing end.
result<UniqueFd> makePipe(Output& output) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return lastError();
  output.reader = UniqueFd(ends[0]);
  UniqueFd writer(ends[1]);
  if (::fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) return lastError();
  return writer;
}

/// 0, or the number of an error.
int spawn(pid_t& pid, const std::vector<std::string>& argv, int out, int err) {
  // /sbin is for the system's tools; messages come untranslated, so that they can be understood.
  static const char* const kEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C",
                                             nullptr};
  std::vector<char*> arguments;
  arguments.reserve(argv.size() + 1);
  for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  // Signals that this program ignores or blocks must reach the child: a tool that ignores SIGPIPE
  // or SIGTERM could not be ended.
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  for (const int fixed : {SIGKILL, SIGSTOP}) ::sigdelset(&all, fixed);
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  // Out of memory is all that these can answer.
  int error = ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  error |= ::posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  error |= ::posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  // Libraries may hold descriptors without the close-on-exec flag.
  error |= ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  if (error == 0) {
    error = ::posix_spawn(&pid, arguments[0], &actions, &attributes, arguments.data(),
                          const_cast<char* const*>(kEnvironment));
  }
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  return error;
}

result<Child> startChild(const std::vector<std::string>& argv) {
  if (argv.empty()) return errorOf(EINVAL);
  Child child;
  const auto out = makePipe(child.out);
  if (!out) return out.error();
  const auto err = makePipe(child.err);
  if (!err) return err.error();
  if (const int error = spawn(child.pid, argv, out->get(), err->get())) return errorOf(error);
  child.end = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, child.pid, 0)));
  if (child.end) return child;
  const auto error = lastError();
  ::kill(-child.pid, SIGKILL);
  ::waitpid(child.pid, nullptr, 0);
  return error;
}

bool endsWithin(const Child& child, milliseconds limit) {
  pollfd end{child.end.get(), POLLIN, 0};
  return pollUntil({&end, 1}, Clock::now() + limit);
}

// A child that has ended stays unreaped meanwhile: its process group's number is taken as long.
void terminate(const Child& child) {
  ::kill(-child.pid, SIGTERM);
  const bool hasEnded = endsWithin(child, kTerminationGrace);
  ::kill(-child.pid, SIGKILL);  // Also what the child itself has left behind in its group.
  if (hasEnded || endsWithin(child, kKillGrace)) ::waitpid(child.pid, nullptr, 0);
}

class LinuxProcessRunner final : public ProcessRunner {
 public:
  explicit LinuxProcessRunner(milliseconds limit)
      : limit_(limit), cancellation_(::eventfd(0, EFD_CLOEXEC)) {
    if (!cancellation_) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  result<ProcessOutcome> run(const std::vector<std::string>& argv) override {
    if (isCancelled_) return errorOf(ECANCELED);
    auto child = startChild(argv);
    if (!child) return child.error();
    if (const int reason = awaitEnd(*child); reason != 0) {
      terminate(*child);
      return errorOf(reason);
    }
    int status = 0;
    if (::waitpid(child->pid, &status, 0) != child->pid) return lastError();
    child->out.drain();
    child->err.drain();
    return ProcessOutcome{
        .exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 0,
        .signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0,
        .out = std::move(child->out.kept),
        .err = std::move(child->err.kept),
        .isTruncated = child->out.isTruncated || child->err.isTruncated,
    };
  }

  void cancel() override {
    isCancelled_ = true;
    ::eventfd_write(cancellation_.get(), 1);
  }

 private:
  // 0 when the child has ended, else why it must be: an error number.
  int awaitEnd(Child& child) const {
    const auto deadline = Clock::now() + limit_;
    while (true) {
      std::array<pollfd, 4> watched{{{child.end.get(), POLLIN, 0},
                                     {cancellation_.get(), POLLIN, 0},
                                     {child.out.reader.get(), POLLIN, 0},
                                     {child.err.reader.get(), POLLIN, 0}}};
      pollUntil(watched, deadline);
      if (watched[0].revents != 0) return 0;
      if (watched[1].revents != 0) return ECANCELED;
      if (watched[2].revents != 0) child.out.read();
      if (watched[3].revents != 0) child.err.read();
      if (Clock::now() >= deadline) return ETIMEDOUT;  // Also of one that writes without end.
    }
  }

  milliseconds limit_;
  UniqueFd cancellation_;  // Readable once cancelled: nobody reads it.
  std::atomic<bool> isCancelled_ = false;
};

}  // namespace

std::unique_ptr<ProcessRunner> makeProcessRunner(milliseconds limit) {
  return std::make_unique<LinuxProcessRunner>(limit);
}

}  // namespace tarnlink
