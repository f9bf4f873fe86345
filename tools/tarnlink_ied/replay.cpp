#include "tools/tarnlink_ied/replay.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "tools/common/command_line.h"
#include "tools/tarnlink_ied/capture_file.h"

namespace tarnlink {
namespace {

using std::chrono::nanoseconds;

constexpr std::size_t kEthernetHeaderLength = 14;  // Octets, untagged.
// A capture may be of several days; a longer silence is a damaged time stamp and waits this long.
constexpr std::chrono::hours kLongestGap{30 * 24};
// Between the last frame of a recording and the first one of its next round, before the speed.
constexpr std::chrono::seconds kRoundGap{1};

/// When each frame of a recording is due, counted from the first one. A plain value.
class ReplaySchedule {
 public:
  /// `speed` divides all gaps; 0 leaves none.
  explicit ReplaySchedule(double speed) : speed_(speed) {}

  /// The offset of the frame recorded at `time`.
  nanoseconds nextOffset(nanoseconds time) {
    if (previous_) {
      recorded_ += std::clamp<nanoseconds>(time - *previous_, nanoseconds(0), kLongestGap);
    }
    previous_ = std::max(time, previous_.value_or(time));
    if (speed_ == 0) return nanoseconds(0);
    return nanoseconds(static_cast<std::int64_t>(static_cast<double>(recorded_.count()) / speed_));
  }
  /// The recording starts anew.
  void startNextRound() {
    previous_.reset();
    recorded_ += kRoundGap;
  }

 private:
  double speed_;
  nanoseconds recorded_{0};  ///< Gaps of the recording so far.
  std::optional<nanoseconds> previous_;
};

void appendCount(std::string& text, std::uint64_t number, const char* reason) {
  if (number == 0) return;
  text += text.empty() ? "; skipped " : ", ";
  text += std::to_string(number) + " " + reason;
}

}  // namespace

std::string SendReport::text() const {
  std::string skipped;
  appendCount(skipped, tooLong, "too long for the link");
  appendCount(skipped, incomplete, "not whole in the capture");
  appendCount(skipped, linkDown, "while the link was down");
  return "Sent " + framesText(sent) + skipped;
}

IedResult<void> replay(const ReplayOptions& options, FrameSink& sink, CueSource& cues,
                       SendReport& report) {
  ReplaySchedule schedule(options.speed);
  const auto start = cues.now();
  while (true) {
    auto file = CaptureFile::open(options.path);
    if (!file) return file.error();
    const auto tried = report.sent + report.linkDown;
    while (true) {
      const auto frame = file->next();
      if (!frame) return frame.error();
      if (!*frame) break;
      if (cues.waitUntil(start + schedule.nextOffset((*frame)->time)) == Cue::end) return {};
      if (!(*frame)->isWhole || (*frame)->octets.size() < kEthernetHeaderLength) {
        ++report.incomplete;
        continue;
      }
      const auto outcome = sink.send((*frame)->octets);
      if (!outcome) return outcome.error();
      ++(*outcome == SinkOutcome::sent      ? report.sent
         : *outcome == SinkOutcome::tooLong ? report.tooLong
                                            : report.linkDown);
      if (options.count && report.sent >= *options.count) return {};
    }
    if (!options.loop) return {};
    // Going round without anything to send would only burn the processor.
    if (report.sent + report.linkDown == tried) {
      return IedError{options.path + " holds no frame that can be sent"};
    }
    schedule.startNextRound();
  }
}

}  // namespace tarnlink
