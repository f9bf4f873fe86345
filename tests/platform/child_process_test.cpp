#include "platform/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::minutes kLimit{1};
constexpr const char* kEnvironment = "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n";

TEST(ChildProcess, EndsAndOutputsAreToldApart) {
  const struct {
    const char* situation;
    std::vector<std::string> argv;
    int exitStatus, signal;
    const char *out, *err;
  } cases[] = {
      {"status", {"/bin/sh", "-c", "echo out; echo err >&2; exit 3"}, 3, 0, "out\n", "err\n"},
      {"signal", {"/bin/sh", "-c", "echo last; kill -KILL $$"}, 0, SIGKILL, "last\n", ""},
      {"input at its end", {"/bin/cat"}, 0, 0, "", ""},
      {"no shell between", {"/bin/echo", "a b", "$HOME;'"}, 0, 0, "a b $HOME;'\n", ""},
      {"silent end", {"/bin/sh", "-c", "exec >&- 2>&-; sleep 0.05; exit 4"}, 4, 0, "", ""},
      {"leaves a child behind", {"/bin/sh", "-c", "sleep 3 & echo x"}, 0, 0, "x\n", ""},
      {"environment", {"/usr/bin/env"}, 0, 0, kEnvironment, ""},
  };
  const auto runner = makeProcessRunner(kLimit);
  const auto start = Clock::now();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    const auto outcome = runner->run(c.argv);
    ASSERT_TRUE(outcome) << outcome.error().message();
    EXPECT_EQ(std::tie(outcome->exitStatus, outcome->signal), std::tie(c.exitStatus, c.signal));
    EXPECT_EQ(outcome->out, c.out);
    EXPECT_EQ(outcome->err, c.err);
    EXPECT_FALSE(outcome->isTruncated);
  }
  EXPECT_LT(Clock::now() - start, milliseconds(2500)) << "waited for what a child left behind";
}

TEST(ChildProcess, NeitherSignalsNorDescriptorsAreInherited) {
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const int inheritable = ::open("/dev/null", O_RDONLY);
  const auto runner = makeProcessRunner(kLimit);
  EXPECT_EQ(runner->run({"/bin/sh", "-c", "kill -PIPE $$"})->signal, SIGPIPE);
  EXPECT_EQ(runner->run({"/bin/sh", "-c", "kill -TERM $$"})->signal, SIGTERM);
  EXPECT_EQ(runner->run({"/usr/bin/test", "-e", "/proc/self/fd/" + std::to_string(inheritable)})
                ->exitStatus,
            1);
  ::close(inheritable);
  ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
}

TEST(ChildProcess, OutputBeyondTheLimitIsDroppedAndDoesNotBlock) {
  const auto outcome =
      makeProcessRunner(kLimit)->run({"/usr/bin/head", "-c", "1000000", "/dev/zero"});
  EXPECT_EQ(outcome.value().out.size(), kMaxProcessOutput);
  EXPECT_TRUE(outcome->isTruncated && outcome->succeeded());
}

TEST(ChildProcess, ProgramsThatCannotStartLeaveNoDescriptors) {
  const auto runner = makeProcessRunner(kLimit);
  const int next = ::dup(STDIN_FILENO);  // The lowest free one.
  ::close(next);
  EXPECT_EQ(runner->run({"/nowhere/ip"}).error().value(), ENOENT);
  EXPECT_EQ(runner->run({"/etc/passwd"}).error().value(), EACCES);
  EXPECT_EQ(runner->run({}).error().value(), EINVAL);
  EXPECT_TRUE(runner->run({"/bin/true"}));
  const int after = ::dup(STDIN_FILENO);
  ::close(after);
  EXPECT_EQ(after, next);
}

TEST(ChildProcess, ALimitEndsTheProgramAndNotTheRunner) {
  const auto runner = makeProcessRunner(milliseconds(200));
  const std::vector<std::string> endless[] = {{"/bin/sleep", "60"}, {"/usr/bin/yes"}};
  for (const auto& argv : endless) {
    const auto start = Clock::now();
    EXPECT_EQ(runner->run(argv).error(), boost::system::errc::timed_out);
    EXPECT_LT(Clock::now() - start, milliseconds(2000));
  }
  EXPECT_TRUE(runner->run({"/bin/true"}));
}

// A prompt that waits for a person would otherwise hold the program's end for ever.
TEST(ChildProcess, CancellingEndsTheWholeGroup) {
  const std::pair<const char*, milliseconds> cases[] = {
      {"(trap '' TERM; exec flock $0 sleep 60) & wait", milliseconds(400)},
      {"trap '' TERM; flock $0 sleep 60 & wait; wait", milliseconds(2000)},
  };
  for (const auto& [line, limit] : cases) {
    SCOPED_TRACE(line);
    char path[] = "/tmp/child_process_test.XXXXXX";
    const int file = ::mkostemp(path, O_CLOEXEC);
    // The lock is taken as long as a member of the group lives.
    const auto waitUntilTaken = [file](bool taken) {
      for (int i = 0; i < 500; ++i) {
        std::this_thread::sleep_for(milliseconds(10));
        const bool isFree = ::flock(file, LOCK_EX | LOCK_NB) == 0;
        if (isFree) ::flock(file, LOCK_UN);
        if (isFree != taken) return true;
      }
      return false;
    };
    const auto runner = makeProcessRunner(kLimit);
    Clock::time_point cancelled;
    std::thread other([&] {
      EXPECT_TRUE(waitUntilTaken(true));
      cancelled = Clock::now();
      runner->cancel();
    });
    const auto outcome = runner->run({"/bin/sh", "-c", line, path});
    const auto end = Clock::now();
    other.join();
    EXPECT_EQ(outcome.error(), boost::system::errc::operation_canceled);
    EXPECT_LT(end - cancelled, limit);
    EXPECT_TRUE(waitUntilTaken(false));
    EXPECT_EQ(runner->run({"/bin/true"}).error(), boost::system::errc::operation_canceled);
    ::close(file);
    ::unlink(path);
  }
}

}  // namespace
}  // namespace tarnlink
