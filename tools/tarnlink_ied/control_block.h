// One GOOSE control block of the simulated IED: a dataset that changes from state to state.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "goosestack/goose_publish_config.h"
#include "goosestack/time_point.h"

namespace tarnlink {

/// A plain value. The time comes from the caller; numbers and schedule are the publisher's.
class ControlBlock {
 public:
  /// The dataset in state 0, 1, 2, ... of which the last change was at `changedAt`. Pure.
  using Dataset = std::function<std::vector<goosestack::GooseDataValue>(
      std::uint32_t state, goosestack::TimePoint changedAt)>;

  /// `config` says everything but the values.
  ControlBlock(goosestack::GoosePublishConfig config, Dataset dataset);

  const goosestack::GoosePublishConfig& config() const { return config_; }

  /// What to publish from `now` on: state 0 at the first call, then one state on at each.
  const goosestack::GoosePublishConfig& nextState(goosestack::TimePoint now);

 private:
  goosestack::GoosePublishConfig config_;
  Dataset dataset_;
  std::uint32_t state_ = 0;
};

}  // namespace tarnlink
