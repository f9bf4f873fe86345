// Playing a recorded capture onto the wire, with the spacing it was recorded with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/tarnlink_ied/cues.h"
#include "tools/tarnlink_ied/frame_sink.h"

namespace tarnlink {

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

  /// "Sent 12 frames", with what was skipped and why.
  std::string text() const;
};

/// Returns at the end of the file, after `count` frames, or at Cue::end; no other cue may come.
/// Each frame is due so long after the first one as the recording says: late frames do not delay
/// the later ones. Frames recorded out of order have no gap. Fails when the file cannot be read or
/// holds nothing to send, or the interface is lost.
IedResult<void> replay(const ReplayOptions& options, FrameSink& sink, CueSource& cues,
                       SendReport& report);

}  // namespace tarnlink
