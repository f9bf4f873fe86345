#include "tools/tarnlink_ied/sv_sender.h"

#include <cerrno>
#include <ctime>
#include <utility>

#include "goosestack/real_time_thread.h"

namespace tarnlink {
namespace {

// Without watching the clock for the last moments, as waitUntil() does: at thousands of frames a
// second that would be all of a processor.
void sleepUntil(SampleClock::Instant deadline) {
  const auto time = deadline.time_since_epoch();
  const auto whole = std::chrono::floor<std::chrono::seconds>(time);
  const timespec until{static_cast<time_t>(whole.count()),
                       static_cast<long>(std::chrono::nanoseconds(time - whole).count())};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

}  // namespace

SampleClock::Instant SampleClock::due(std::uint64_t number) const {
  // Whole seconds apart, so that no product leaves its range and no fraction adds up.
  constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
  return start_ + std::chrono::seconds(number / rate_) +
         std::chrono::nanoseconds(number % rate_ * kNanosecondsPerSecond / rate_);
}

std::uint64_t SampleClock::next(std::uint64_t number, Instant now) const {
  if (now <= due(number) + kLongestLag) return number;
  const auto passed = std::chrono::duration<double>(now - start_).count();
  return static_cast<std::uint64_t>(passed * rate_) + 1;
}

SvSender::SvSender(std::unique_ptr<goosestack::SendHandle> handle, SampledValues values)
    : handle_(std::move(handle)), values_(std::move(values)), thread_([this] { run(); }) {}

SvSender::~SvSender() {
  isEnding_ = true;
  thread_.join();
}

void SvSender::run() {
  goosestack::askForRealTime();
  const SampleClock clock(std::chrono::steady_clock::now(), values_.rate());
  for (std::uint64_t number = 0; !isEnding_; ++number) {
    number = clock.next(number, std::chrono::steady_clock::now());
    const goosestack::ByteView frame = values_.frame(number);
    sleepUntil(clock.due(number));
    (void)handle_->sendPacket(frame);
  }
}

}  // namespace tarnlink
