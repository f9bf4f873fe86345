#include "tools/tarnlink_ied/pacer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace tarnlink {
namespace {

sigset_t endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

timespec timespecOf(std::chrono::nanoseconds duration) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(duration);
  return {static_cast<time_t>(whole.count()), static_cast<long>((duration - whole).count())};
}

}  // namespace

SignalPacer::SignalPacer() {
  const sigset_t signals = endSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool SignalPacer::waitUntil(Clock::time_point deadline) {
  const sigset_t signals = endSignals();
  while (!isAskedToEnd_) {
    const auto left = std::max(deadline - now(), Clock::duration::zero());
    const timespec timeout = timespecOf(left);
    if (sigtimedwait(&signals, nullptr, &timeout) > 0) {
      isAskedToEnd_ = true;
    } else if (errno == EAGAIN) {
      return true;
    }
  }
  return false;
}

}  // namespace tarnlink
