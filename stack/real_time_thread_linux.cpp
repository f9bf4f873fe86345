#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <cerrno>
#include <ctime>

#include "goosestack/real_time_thread.h"

namespace goosestack {
namespace {

// The lowest of SCHED_FIFO: before every ordinary thread, behind the kernel's interrupt threads.
constexpr int kRealTimePriority = 1;
// What the kernel may add to a sleep of an ordinary thread; its default is 50,000. Nanoseconds.
constexpr unsigned long kTimerSlack = 1;
// Of each wait, what is spent watching the clock instead of sleeping: about as long as a wake-up
// takes at its worst.
constexpr std::chrono::microseconds kWatch{120};

}  // namespace

bool askForRealTime() {
  (void)::prctl(PR_SET_TIMERSLACK, kTimerSlack, 0UL, 0UL, 0UL);
  // Takes CAP_SYS_NICE or an RLIMIT_RTPRIO of at least that priority.
  sched_param parameters{};
  parameters.sched_priority = kRealTimePriority;
  return ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &parameters) == 0;
}

void waitUntil(std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono;
  // steady_clock counts CLOCK_MONOTONIC. Its own sleep_until() reckons the rest anew and sleeps
  // relatively, which is late by whatever happens between.
  const auto time = duration_cast<nanoseconds>((deadline - kWatch).time_since_epoch());
  const auto whole = duration_cast<seconds>(time);
  const timespec until{static_cast<time_t>(whole.count()),
                       static_cast<long>((time - whole).count())};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
  while (steady_clock::now() < deadline) {
  }
}

}  // namespace goosestack
