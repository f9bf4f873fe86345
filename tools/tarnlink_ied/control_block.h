// One GOOSE control block of the simulated IED: a dataset that changes, and its numbers.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "stack/bytes.h"
#include "stack/goose_error.h"
#include "stack/goose_publish_config.h"
#include "stack/time_point.h"

namespace tarnlink {

/// A plain value. The time comes from the caller.
class ControlBlock {
 public:
  /// The dataset in state 0, 1, 2, ... of which the last change was at `changedAt`. Pure.
  using Dataset =
      std::function<std::vector<GooseDataValue>(std::uint32_t state, TimePoint changedAt)>;

  /// `config` says everything but the values and the source address, which come from `dataset` and
  /// `source`; its schedule is not used. Each state is sent `framesPerState` times, 1 or more.
  ControlBlock(GoosePublishConfig config, const MacAddress& source, std::uint32_t framesPerState,
               Dataset dataset);

  const GoosePublishConfig& config() const { return config_; }

  /// The next frame. A new state raises stNum, starts sqNum at 0 and sets `t` to `now`; a repeat
  /// raises sqNum alone (IEC 61850-8-1, 18.1). stNum goes from its largest value to 1.
  GooseResult<Bytes> nextFrame(TimePoint now);

 private:
  void changeState(TimePoint now);

  GoosePublishConfig config_;
  MacAddress source_;
  std::uint32_t framesPerState_;
  Dataset dataset_;
  std::uint32_t state_ = 0;
  std::uint32_t framesLeft_ = 0;  ///< Of the state being sent.
  std::uint32_t stNum_;
  std::uint32_t sqNum_ = 0;
  TimePoint changedAt_{};
};

}  // namespace tarnlink
