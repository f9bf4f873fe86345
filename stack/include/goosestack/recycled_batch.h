// A list of records whose storage outlives them: texts and values of records that were consumed
// are filled anew, so that a steady flow allocates nothing.
#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include "goosestack/footprint.h"

namespace goosestack {

/// A plain container; not thread-safe.
template <class Record>
class RecycledBatch {
 public:
  /// What a consumer is to deal with at a time: it bounds how long others wait.
  static constexpr std::size_t kFullRecords = 64;
  static constexpr std::size_t kFullOctets = 256 << 10;
  /// A consumed record that holds more is freed instead of kept: twice a GOOSE message of 400
  /// values. Octets.
  static constexpr std::size_t kKeptFootprint = 32 << 10;

  /// A record at the end, with whatever an earlier use left in it.
  Record& append() {
    if (count_ == records_.size()) records_.emplace_back();
    return records_[count_++];
  }
  /// Takes the last appended record back.
  void dropLast() { --count_; }
  /// The last appended record has been filled: what it holds counts.
  void weighLast() { octets_ += footprintOf(records_[count_ - 1]); }

  void clear() {
    for (Record& record : records()) {
      if (footprintOf(record) > kKeptFootprint) record = Record();
    }
    count_ = 0;
    octets_ = 0;
  }

  /// Moves all records of `other` behind those here and leaves it empty.
  void takeAll(RecycledBatch& other) {
    if (count_ == 0) {
      std::swap(*this, other);
    } else {
      for (Record& record : other.records()) std::swap(append(), record);
      octets_ += other.octets_;
    }
    other.clear();
  }

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }
  /// What the weighed records hold.
  std::size_t octets() const { return octets_; }
  bool isFull() const { return count_ >= kFullRecords || octets_ >= kFullOctets; }
  std::span<Record> records() { return {records_.data(), count_}; }

 private:
  std::vector<Record> records_;
  std::size_t count_ = 0;
  std::size_t octets_ = 0;
};

}  // namespace goosestack
