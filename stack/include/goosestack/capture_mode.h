// How soon a capture hands out what came.
#pragma once

namespace goosestack {

enum class CaptureMode {
  /// libpcap's own defaults: frames come in bursts, at most 100 ms late.
  standard,
  /// Each frame at once (immediate mode), with a large buffer of small slots: the slots hold the
  /// link's largest frame.
  lowLatency,
};

}  // namespace goosestack
