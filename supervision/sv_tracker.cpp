#include "supervision/sv_tracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "supervision/hash.h"
#include "supervision/redundant_copy.h"
#include "supervision/short_text.h"

namespace tarnlink {
namespace {

using namespace happening;
using std::chrono::microseconds;

constexpr std::uint32_t kWholeRange = 65536;
constexpr std::uint32_t kPeriodsOfSilence = 20;
constexpr microseconds kLeastTimeout{20'000};
// Before so many samples an accident of the first frames would pass for the rate.
constexpr std::uint32_t kSamplesToMeasure = 20;
constexpr microseconds kTimeoutUnmeasured{2'000'000};
constexpr microseconds kMeasureFor{1'000'000};

// Samples a second of IEC 61850-9-2LE, IEC 61869-9 and the usual test sets.
constexpr std::uint32_t kUsualRates[] = {4000, 4800, 5760, 9600, 12800, 14400, 15360};

bool isNear(double rate, std::uint32_t wrap) {
  return rate > 0 && std::abs(rate - wrap) < 0.02 * wrap;
}

/// Whether the ASDU itself says so: samples a second, or a period of 50 or 60 Hz.
bool isSaid(const goosestack::SvAsdu& asdu, std::uint32_t wrap) {
  if (!asdu.smpRate || asdu.smpMod.value_or(0) > 1) return false;
  const std::uint32_t rate = *asdu.smpRate;
  if (asdu.smpMod == 1) return wrap == rate;
  return wrap == rate || wrap == rate * 50 || wrap == rate * 60;
}

std::uint32_t distance(std::uint16_t from, std::uint16_t to, std::uint32_t range) {
  return (to + range - from) % range;
}

}  // namespace

void SvTracker::begin(const goosestack::SvAsdu& asdu, StreamTime at, StreamRow& row) {
  row.kind = StreamKind::sv;
  if (asdu.datSet) row.dataSet = shortText(*asdu.datSet);
  row.confRev = asdu.confRev;
  row.smpSynch = asdu.smpSynch;
  row.smpCnt = asdu.smpCnt;
  row.sampleOctets = static_cast<std::uint32_t>(asdu.samples.size());
  content_ = hashOctets(asdu.samples, 0);
  seen_.set(0);
  startMeasuring(at);
}

void SvTracker::startMeasuring(StreamTime at) {
  measuredFrom_ = at;
  measured_ = 0;
}

std::uint32_t SvTracker::range(const StreamRow& row) const {
  return row.smpCntWrap == 0 ? kWholeRange : row.smpCntWrap;
}

void SvTracker::see(const goosestack::SvAsdu& asdu, StreamTime at, bool uncertain, StreamRow& row,
                    Teller& teller) {
  if (row.smpCntWrap != 0 && asdu.smpCnt >= row.smpCntWrap) row.smpCntWrap = 0;  // It was not.
  const std::uint64_t content = hashOctets(asdu.samples, 0);
  std::uint32_t steps = distance(row.smpCnt, asdu.smpCnt, range(row));
  if (steps == 0) {
    if (content == content_) return teller.tell(Duplicate{});
    return teller.tell(OutOfOrder{.smpCnt = asdu.smpCnt});
  }
  if (steps > range(row) / 2 && row.smpCntWrap == 0 && learnWrap(asdu, row)) {
    steps = distance(row.smpCnt, asdu.smpCnt, range(row));
  }
  if (steps > range(row) / 2) return seeBehind(asdu, at, range(row) - steps, row, teller);
  if (steps > 1) teller.tell(Lost{steps - 1, uncertain});
  content_ = content;
  advance(asdu.smpCnt, steps, at, row);
  compareConfiguration(asdu, row, teller);
}

bool SvTracker::learnWrap(const goosestack::SvAsdu& asdu, StreamRow& row) {
  const double rate = row.measuredSampleRate;
  const std::uint32_t top = row.smpCnt + 1U;
  if (asdu.smpCnt == 0) {
    const bool isUsual =
        std::find(std::begin(kUsualRates), std::end(kUsualRates), top) != std::end(kUsualRates);
    if (isUsual || isSaid(asdu, top) || isNear(rate, top) || lastTop_ == row.smpCnt) {
      row.smpCntWrap = top;
      return true;
    }
    lastTop_ = row.smpCnt;
  }
  // Samples were lost around the wrap.
  for (const std::uint32_t usual : kUsualRates) {
    if (!isNear(rate, usual) || row.smpCnt >= usual) continue;
    if (distance(row.smpCnt, asdu.smpCnt, usual) > usual / 2) continue;
    row.smpCntWrap = usual;
    return true;
  }
  return false;
}

void SvTracker::seeBehind(const goosestack::SvAsdu& asdu, StreamTime at, std::uint32_t back,
                          StreamRow& row, Teller& teller) {
  const double secondsBack = row.measuredSampleRate > 0 ? back / row.measuredSampleRate : 1;
  if (back < seen_.size() && seen_[back] && secondsBack <= kRedundantCopyWithin.count() * 1e-6) {
    return teller.tell(Duplicate{});
  }
  strays_ = static_cast<std::uint8_t>(asdu.smpCnt == stray_ + 1 ? strays_ + 1 : 1);
  stray_ = asdu.smpCnt;
  teller.tell(OutOfOrder{.smpCnt = asdu.smpCnt});
  if (strays_ != kMessagesOfANewCount) {
    if (back < seen_.size()) seen_.set(back);
    return;
  }
  seen_.reset();
  content_ = hashOctets(asdu.samples, 0);
  advance(asdu.smpCnt, 1, at, row);
  compareConfiguration(asdu, row, teller);
}

void SvTracker::advance(std::uint16_t smpCnt, std::uint32_t steps, StreamTime at, StreamRow& row) {
  row.smpCnt = smpCnt;
  strays_ = 0;
  seen_ <<= std::min<std::size_t>(steps, seen_.size());
  seen_.set(0);
  measured_ += steps;
  const microseconds elapsed = at - measuredFrom_;
  const bool isFirst = row.measuredSampleRate == 0;
  if (elapsed < microseconds(0)) return startMeasuring(at);
  if (elapsed >= kMeasureFor || (isFirst && measured_ >= kSamplesToMeasure)) {
    if (elapsed.count() > 0) row.measuredSampleRate = measured_ * 1e6 / elapsed.count();
    if (elapsed >= kMeasureFor) startMeasuring(at);
  }
}

microseconds SvTracker::timeout(const StreamRow& row, StreamTime now) const {
  if (row.measuredSampleRate > 0) {
    const auto silence = std::min(kPeriodsOfSilence * 1e6 / row.measuredSampleRate, 1e12);
    return std::max(kLeastTimeout, microseconds(std::llround(silence)));
  }
  const microseconds elapsed = now - measuredFrom_;
  return std::max(kTimeoutUnmeasured, kPeriodsOfSilence * elapsed / std::max(measured_, 1U));
}

void SvTracker::compareConfiguration(const goosestack::SvAsdu& asdu, StreamRow& row,
                                     Teller& teller) {
  if (const std::uint32_t before = std::exchange(row.confRev, asdu.confRev);
      before != asdu.confRev) {
    teller.tell(ConfRevChanged{before, asdu.confRev});
  }
  const auto octets = static_cast<std::uint32_t>(asdu.samples.size());
  const bool isOtherSet = row.dataSet.has_value() != asdu.datSet.has_value() ||
                          (row.dataSet && *row.dataSet != shortText(*asdu.datSet));
  if (isOtherSet) {
    row.dataSet.reset();
    if (asdu.datSet) row.dataSet = shortText(*asdu.datSet);
  }
  if (std::exchange(row.sampleOctets, octets) != octets || isOtherSet) {
    teller.tell(DatasetChanged{});
  }
  if (const std::uint8_t before = std::exchange(row.smpSynch, asdu.smpSynch);
      before != asdu.smpSynch) {
    teller.tell(SmpSynchChanged{before, asdu.smpSynch});
  }
}

}  // namespace tarnlink
