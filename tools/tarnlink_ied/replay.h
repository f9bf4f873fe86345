// Playing a recorded capture onto the wire, with the spacing it was recorded with.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/tarnlink_ied/frame_sink.h"
#include "tools/tarnlink_ied/pacer.h"

namespace tarnlink {

/// When each frame of a recording is due, counted from the first one. A plain value. Every due
/// time is reckoned from the start, so late frames do not delay the later ones.
class ReplaySchedule {
 public:
  /// A capture may be of several days; a longer silence is a damaged time stamp and waits this
  /// long.
  static constexpr std::chrono::hours kLongestGap{30 * 24};
  /// Between the last frame of a recording and the first one of its next round, before `speed`.
  static constexpr std::chrono::seconds kRoundGap{1};

  /// `speed` divides all gaps; 0 leaves none.
  explicit ReplaySchedule(double speed) : speed_(speed) {}

  /// The offset of the frame recorded at `time`. Frames recorded out of order have no gap.
  std::chrono::nanoseconds nextOffset(std::chrono::nanoseconds time);
  /// The recording starts anew.
  void startNextRound();

 private:
  double speed_;
  std::chrono::nanoseconds recorded_{0};  ///< Gaps of the recording so far.
  std::optional<std::chrono::nanoseconds> previous_;
};

struct ReplayOptions {
  std::string path;
  double speed = 1.0;  ///< 2 is twice as fast; 0 is as fast as possible.
  bool loop = false;
  std::optional<std::uint64_t> count;  ///< End after so many frames were sent.
};

/// What became of the frames, also of those before a failure.
struct SendReport {
  std::uint64_t sent = 0;
  std::uint64_t tooLong = 0;     ///< For the link.
  std::uint64_t incomplete = 0;  ///< Cut short by the capture, or shorter than a header.
  std::uint64_t linkDown = 0;

  bool operator==(const SendReport&) const = default;

  void count(SinkOutcome outcome);
  /// "Sent 12 frames", with what was skipped and why.
  std::string text() const;
};

/// Returns at the end of the file, after `count` frames, or when `pacer` says so. Fails when the
/// file cannot be read or holds nothing to send, or the interface is lost.
IedResult<void> replay(const ReplayOptions& options, FrameSink& sink, Pacer& pacer,
                       SendReport& report);

}  // namespace tarnlink
