#include "tools/tarnlink_ied/control_block.h"

#include <utility>

namespace tarnlink {

ControlBlock::ControlBlock(GoosePublishConfig config, Dataset dataset)
    : config_(std::move(config)), dataset_(std::move(dataset)) {}

const GoosePublishConfig& ControlBlock::nextState(TimePoint now) {
  config_.values = dataset_(state_++, now);
  return config_;
}

}  // namespace tarnlink
