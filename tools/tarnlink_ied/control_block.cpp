#include "tools/tarnlink_ied/control_block.h"

#include <utility>

#include "stack/ethernet_frame.h"
#include "stack/goose_pdu.h"

namespace tarnlink {

ControlBlock::ControlBlock(GoosePublishConfig config, const MacAddress& source,
                           std::uint32_t framesPerState, Dataset dataset)
    : config_(std::move(config)),
      source_(source),
      framesPerState_(framesPerState),
      dataset_(std::move(dataset)),
      stNum_(config_.initialStNum) {}

void ControlBlock::changeState(TimePoint now) {
  framesLeft_ = framesPerState_;
  changedAt_ = now;
  stNum_ = stNum_ == UINT32_MAX ? 1 : stNum_ + 1;  // 0 is no state number.
  sqNum_ = 0;
  config_.values = dataset_(state_++, now);
}

GooseResult<Bytes> ControlBlock::nextFrame(TimePoint now) {
  if (framesLeft_ == 0) {
    changeState(now);
  } else {
    ++sqNum_;
  }
  --framesLeft_;
  GoosePduFields fields;
  fields.header.appId = config_.appId;
  fields.goCBRef = config_.goCBRef;
  fields.timeAllowedToLive = config_.timeAllowedToLive;
  fields.datSet = config_.dataSetRef;
  fields.goId = config_.goId;
  fields.stNum = stNum_;
  fields.sqNum = sqNum_;
  fields.simulation = config_.simulation;
  fields.confRev = config_.confRev;
  fields.ndsCom = config_.ndsCom;
  fields.values = config_.values;
  fields.timestamp = changedAt_;
  const auto payload = GoosePdu::encode(fields);
  if (!payload) return payload.error();
  return EthernetFrame::build(config_.dstMac, source_, config_.vlanId, config_.vlanPriority,
                              *payload);
}

}  // namespace tarnlink
