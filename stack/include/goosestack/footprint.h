// The memory that records hold: what limits of queues are reckoned in. Octets.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace goosestack {

/// What the heap adds to each piece of storage.
inline constexpr std::size_t kHeapOverhead = 16;

template <class T>
std::size_t heapOctets(const std::vector<T>& list) {
  return list.capacity() == 0 ? 0 : list.capacity() * sizeof(T) + kHeapOverhead;
}

inline std::size_t heapOctets(const std::string& text) {
  static const std::size_t kInside = std::string().capacity();  // Short texts need no storage.
  return text.capacity() <= kInside ? 0 : text.capacity() + 1 + kHeapOverhead;
}

/// The record with all storage behind it, unused storage included, as its footprint() says. A
/// record without one has no storage that counts.
template <class Record>
std::size_t footprintOf(const Record& record) {
  if constexpr (requires { record.footprint(); }) {
    return record.footprint();
  } else {
    return sizeof record;
  }
}

}  // namespace goosestack
