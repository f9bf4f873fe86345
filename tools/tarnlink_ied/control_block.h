// One GOOSE control block of the simulated IED: a dataset that changes from state to state.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "stack/goose_publish_config.h"
#include "stack/time_point.h"

namespace tarnlink {

/// A plain value. The time comes from the caller; numbers and schedule are the publisher's.
class ControlBlock {
 public:
  /// The dataset in state 0, 1, 2, ... of which the last change was at `changedAt`. Pure.
  using Dataset =
      std::function<std::vector<GooseDataValue>(std::uint32_t state, TimePoint changedAt)>;

  /// `config` says everything but the values.
  ControlBlock(GoosePublishConfig config, Dataset dataset);

  const GoosePublishConfig& config() const { return config_; }

  /// What to publish from `now` on: state 0 at the first call, then one state on at each.
  const GoosePublishConfig& nextState(TimePoint now);

 private:
  GoosePublishConfig config_;
  Dataset dataset_;
  std::uint32_t state_ = 0;
};

}  // namespace tarnlink
