#include "tools/tarnlink_ied/cues.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iostream>
#include <system_error>

namespace tarnlink {
namespace {

constexpr std::size_t kLongestLine = 1024;  // Characters; longer ones are no words of ours.

volatile std::sig_atomic_t isEndWanted = 0;
volatile std::sig_atomic_t isChangeWanted = 0;

void onSignal(int number) {
  (number == SIGUSR1 ? isChangeWanted : isEndWanted) = 1;
}

timespec timespecOf(std::chrono::nanoseconds duration) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(duration);
  return {static_cast<time_t>(whole.count()), static_cast<long>((duration - whole).count())};
}

}  // namespace

OperatorCues::OperatorCues(bool hasOperator) : isWatchingInput_(hasOperator) {
  if (::pipe2(wakeUp_.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) {
    if (number == SIGUSR1 && !hasOperator) continue;
    sigaddset(&signals, number);
    std::signal(number, onSignal);
  }
  // They come in during the wait alone: none is missed between looking and waiting.
  ::pthread_sigmask(SIG_BLOCK, &signals, &maskOutside_);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) sigdelset(&maskOutside_, number);
  // In the background of a terminal, reading fails instead of stopping the program.
  std::signal(SIGTTIN, SIG_IGN);
}

OperatorCues::~OperatorCues() {
  for (const int end : wakeUp_) ::close(end);
}

void OperatorCues::end() {
  (void)!::write(wakeUp_[1], "e", 1);  // A full pipe has woken the reader already.
}

Cue OperatorCues::waitUntil(std::optional<Clock::time_point> deadline) {
  while (true) {
    if (const auto cue = takePending()) return *cue;
    std::array<pollfd, 2> sources{
        {{wakeUp_[0], POLLIN, 0}, {isWatchingInput_ ? STDIN_FILENO : -1, POLLIN, 0}}};
    timespec left{};
    if (deadline) left = timespecOf(std::max(*deadline - now(), Clock::duration::zero()));
    const int ready =
        ::ppoll(sources.data(), sources.size(), deadline ? &left : nullptr, &maskOutside_);
    if (ready == 0) return Cue::due;
    if (ready < 0) continue;  // A signal.
    if (sources[0].revents != 0) isEndWanted = 1;
    if (sources[1].revents != 0) readLines();
  }
}

std::optional<Cue> OperatorCues::takePending() {
  if (isEndWanted != 0) return Cue::end;
  if (isChangeWanted != 0) {
    isChangeWanted = 0;
    return Cue::change;
  }
  if (lines_.empty()) return {};
  const Cue cue = lines_.front();
  lines_.pop_front();
  return cue;
}

void OperatorCues::readLines() {
  std::array<char, kLongestLine> part{};
  const auto count = ::read(STDIN_FILENO, part.data(), part.size());
  if (count <= 0) {
    isWatchingInput_ = count < 0 && (errno == EINTR || errno == EAGAIN);
    return;
  }
  for (const char letter : std::string_view(part.data(), static_cast<std::size_t>(count))) {
    if (letter != '\n') {
      if (partialLine_.size() < kLongestLine) partialLine_ += letter;
      continue;
    }
    takeLine(partialLine_);
    partialLine_.clear();
  }
}

void OperatorCues::takeLine(const std::string& line) {
  if (line == "trip") {
    lines_.push_back(Cue::trip);
  } else if (line == "change") {
    lines_.push_back(Cue::change);
  } else if (!line.empty()) {
    std::cerr << "tarnlink-ied: the lines 'trip' and 'change' are understood" << std::endl;
  }
}

}  // namespace tarnlink
