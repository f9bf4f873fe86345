// A list of records whose storage outlives them: texts and values of records that were consumed
// are filled anew, so that a steady flow allocates nothing.
#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace tarnlink {

/// A plain container; not thread-safe.
template <class Record>
class RecycledBatch {
 public:
  /// Records kept for reuse. A burst above it gives its memory back when it is cleared.
  static constexpr std::size_t kKeptRecords = 1024;

  /// A record at the end, with whatever an earlier use left in it.
  Record& append() {
    if (count_ == records_.size()) records_.emplace_back();
    return records_[count_++];
  }
  /// Takes the last appended record back.
  void dropLast() { --count_; }

  void clear() {
    count_ = 0;
    if (records_.size() > kKeptRecords) {
      records_.resize(kKeptRecords);
      records_.shrink_to_fit();
    }
  }

  /// Moves all records of `other` behind those here and leaves it empty.
  void takeAll(RecycledBatch& other) {
    if (count_ == 0) {
      std::swap(*this, other);
    } else {
      for (Record& record : other.records()) std::swap(append(), record);
    }
    other.clear();
  }

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }
  std::span<Record> records() { return {records_.data(), count_}; }

 private:
  std::vector<Record> records_;
  std::size_t count_ = 0;
};

}  // namespace tarnlink
