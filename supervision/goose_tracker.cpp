#include "supervision/goose_tracker.h"

#include <limits>
#include <utility>

#include "supervision/redundant_copy.h"
#include "supervision/short_text.h"

namespace tarnlink {
namespace {

using namespace happening;

/// A counter that runs over its end is followed when it is no further than this behind it.
constexpr std::uint32_t kNearRollOver = 1000;
constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();

/// By how many messages `to` follows `from`, 1 being the next; 0 when it does not. After the
/// largest number comes 1, or 0.
std::uint32_t ahead(std::uint32_t from, std::uint32_t to) {
  if (to > from) return to - from;
  const std::uint32_t distance = to - from;
  if (distance == 0 || distance > kNearRollOver) return 0;
  return to > 0 ? distance - 1 : distance;
}

bool isStart(const GooseSighting& message) {
  return message.stNum == 1 && message.sqNum <= 1;
}

}  // namespace

void GooseTracker::begin(const GooseSighting& message, StreamRow& row, Teller& teller) {
  row.kind = StreamKind::goose;
  row.dataSet = shortText(message.dataSet);
  row.confRev = message.confRev;
  row.needsCommission = message.needsCommission;
  row.stNum = message.stNum;
  row.timeAllowedToLive = 1;
  row.lastChange = message.frame.at;
  row.entries = found_ = static_cast<std::uint32_t>(message.values.size());
  members_.replace(message.values);
  adopt(message, Step::jump, row, teller);
}

void GooseTracker::see(const GooseSighting& message, bool uncertain, StreamRow& row,
                       Teller& teller) {
  if (message.stNum == row.stNum) {
    if (message.sqNum == row.sqNum && isSameContent(message, row)) return teller.tell(Duplicate{});
    const std::uint32_t steps = ahead(row.sqNum, message.sqNum);
    if (steps == 0 && message.sqNum != row.sqNum) return seeBehind(message, row, teller);
    if (steps > 1) teller.tell(Lost{steps - 1, uncertain});
    return adopt(message, Step::sameState, row, teller);
  }
  const std::uint32_t steps = ahead(row.stNum, message.stNum);
  if (steps == 0 || (steps > 1 && message.stNum < row.stNum && isStart(message))) {
    return seeBehind(message, row, teller);
  }
  if (steps > 1) {
    teller.tell(StateSkipped{steps - 1, uncertain});
    return adopt(message, Step::jump, row, teller);
  }
  if (message.sqNum > 1) {
    teller.tell(Lost{message.sqNum - (startsAtZero_ ? 0U : 1U), uncertain});
  }
  adopt(message, Step::nextState, row, teller);
}

void GooseTracker::seeBehind(const GooseSighting& message, StreamRow& row, Teller& teller) {
  const Numbers numbers{message.stNum, message.sqNum};
  if (isRecent(numbers, message.frame.at)) return teller.tell(Duplicate{});
  // With the same stNum 1, only a later `t` tells a restart from a message that is late.
  if (isStart(message) && (row.stNum != 1 || message.timestamp > timestamp_)) {
    teller.tell(Restarted{});
    return adopt(message, Step::jump, row, teller);
  }
  const bool continues = (numbers.stNum == stray_.stNum && numbers.sqNum == stray_.sqNum + 1) ||
                         (numbers.stNum == stray_.stNum + 1 && numbers.sqNum <= 1);
  strays_ = static_cast<std::uint8_t>(continues ? strays_ + 1 : 1);
  stray_ = numbers;
  teller.tell(OutOfOrder{numbers.stNum, numbers.sqNum});
  if (strays_ == kMessagesOfANewCount) adopt(message, Step::jump, row, teller);
}

bool GooseTracker::isRecent(Numbers numbers, StreamTime at) const {
  for (const Recent& recent : recent_) {
    if (recent.numbers == numbers && at - recent.at <= kRedundantCopyWithin) return true;
  }
  return false;
}

bool GooseTracker::isSameContent(const GooseSighting& message, const StreamRow& row) const {
  return message.confRev == row.confRev && message.needsCommission == row.needsCommission &&
         message.numEntries == row.entries && shortText(message.dataSet) == *row.dataSet &&
         members_.isSame(message.values);
}

void GooseTracker::adopt(const GooseSighting& message, Step step, StreamRow& row, Teller& teller) {
  if (message.sqNum == 0 && row.sqNum != kLargest) startsAtZero_ = true;
  strays_ = 0;
  newest_ = static_cast<std::uint8_t>((newest_ + 1) % kRecent);
  recent_[newest_] = {{message.stNum, message.sqNum}, message.frame.at};
  if (message.stNum != row.stNum) {
    ++row.stateChanges;
    row.lastChange = message.frame.at;
  }
  row.stNum = message.stNum;
  row.sqNum = message.sqNum;
  timestamp_ = message.timestamp;

  if (const std::uint32_t before = std::exchange(row.confRev, message.confRev);
      before != message.confRev) {
    teller.tell(ConfRevChanged{before, message.confRev});
  }
  compareDataset(message, step, row, teller);
  const auto found = static_cast<std::uint32_t>(message.values.size());
  const bool isOther = row.entries != message.numEntries || found_ != found;
  row.entries = message.numEntries;
  found_ = found;
  if (isOther && message.numEntries != found) teller.tell(EntriesWrong{message.numEntries, found});
  if (message.timeAllowedToLive == 0 && row.timeAllowedToLive != 0) {
    teller.tell(TimeAllowedToLiveZero{});
  }
  row.timeAllowedToLive = message.timeAllowedToLive;
  if (std::exchange(row.needsCommission, message.needsCommission) != message.needsCommission) {
    teller.tell(NeedsCommission{message.needsCommission});
  }
  if (row.goId != shortText(message.goId)) row.goId = shortText(message.goId);
}

void GooseTracker::compareDataset(const GooseSighting& message, Step step, StreamRow& row,
                                  Teller& teller) {
  const std::string_view dataSet = shortText(message.dataSet);
  const bool isOtherSet = *row.dataSet != dataSet;
  if (isOtherSet) row.dataSet->assign(dataSet);
  const bool isSame = !isOtherSet && members_.isSame(message.values);
  if (isSame && step != Step::nextState) return;

  MemberPrints::Difference difference = members_.replace(message.values);
  const bool isOtherShape = isOtherSet || difference.ofTypes;
  if (isOtherShape) teller.tell(DatasetChanged{});
  if (step == Step::nextState) {
    teller.tell(Changed{message.stNum, std::move(difference.members)});
  } else if (step == Step::sameState && !isOtherShape) {
    teller.tell(ChangedWithoutStNum{std::move(difference.members)});
  }
}

}  // namespace tarnlink
