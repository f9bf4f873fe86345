#include "tools/tarnlink_ied/replay.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tools/tarnlink_ied/capture_file.h"

namespace tarnlink {
namespace {

constexpr std::size_t kEthernetHeaderLength = 14;  // Octets, untagged.

void appendCount(std::string& text, std::uint64_t number, const char* reason) {
  if (number == 0) return;
  text += text.empty() ? "" : ", ";
  text += std::to_string(number) + " " + reason;
}

/// One pass over the file; false when no further one is wanted.
IedResult<bool> playOnce(CaptureFile file, const ReplayOptions& options, ReplaySchedule& schedule,
                         Pacer::Clock::time_point start, FrameSink& sink, Pacer& pacer,
                         SendReport& report) {
  while (true) {
    const auto frame = file.next();
    if (!frame) return frame.error();
    if (!*frame) return options.loop;
    if (!pacer.waitUntil(start + schedule.nextOffset((*frame)->time))) return false;
    if (!(*frame)->isWhole || (*frame)->octets.size() < kEthernetHeaderLength) {
      ++report.incomplete;
      continue;
    }
    const auto outcome = sink.send((*frame)->octets);
    if (!outcome) return outcome.error();
    report.count(*outcome);
    if (options.count && report.sent >= *options.count) return false;
  }
}

}  // namespace

std::chrono::nanoseconds ReplaySchedule::nextOffset(std::chrono::nanoseconds time) {
  if (previous_) {
    recorded_ += std::clamp<std::chrono::nanoseconds>(time - *previous_,
                                                      std::chrono::nanoseconds(0), kLongestGap);
  }
  previous_ = std::max(time, previous_.value_or(time));
  if (speed_ == 0) return std::chrono::nanoseconds(0);
  return std::chrono::nanoseconds(
      static_cast<std::int64_t>(static_cast<double>(recorded_.count()) / speed_));
}

void ReplaySchedule::startNextRound() {
  previous_.reset();
  recorded_ += kRoundGap;
}

void SendReport::count(SinkOutcome outcome) {
  switch (outcome) {
    case SinkOutcome::sent:
      ++sent;
      break;
    case SinkOutcome::tooLong:
      ++tooLong;
      break;
    case SinkOutcome::linkDown:
      ++linkDown;
      break;
  }
}

std::string SendReport::text() const {
  std::string skipped;
  appendCount(skipped, tooLong, "too long for the link");
  appendCount(skipped, incomplete, "not whole in the capture");
  appendCount(skipped, linkDown, "while the link was down");
  return "Sent " + std::to_string(sent) + (sent == 1 ? " frame" : " frames") +
         (skipped.empty() ? "" : "; skipped " + skipped);
}

IedResult<void> replay(const ReplayOptions& options, FrameSink& sink, Pacer& pacer,
                       SendReport& report) {
  ReplaySchedule schedule(options.speed);
  const auto start = pacer.now();
  for (bool goesOn = true; goesOn;) {
    auto file = CaptureFile::open(options.path);
    if (!file) return file.error();
    const auto sentBefore = report.sent + report.linkDown;
    const auto more = playOnce(std::move(*file), options, schedule, start, sink, pacer, report);
    if (!more) return more.error();
    goesOn = *more;
    // Going round without anything to send would only burn the processor.
    if (goesOn && report.sent + report.linkDown == sentBefore) {
      return IedError{options.path + " holds no frame that can be sent"};
    }
    schedule.startNextRound();
  }
  return {};
}

}  // namespace tarnlink
