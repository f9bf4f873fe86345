#include "tools/tarnlink_ied/control_block.h"

#include <utility>

namespace tarnlink {

ControlBlock::ControlBlock(goosestack::GoosePublishConfig config, Dataset dataset)
    : config_(std::move(config)), dataset_(std::move(dataset)) {}

const goosestack::GoosePublishConfig& ControlBlock::nextState(goosestack::TimePoint now) {
  config_.values = dataset_(state_++, now);
  return config_;
}

}  // namespace tarnlink
