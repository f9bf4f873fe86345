// What can be told of a stream. Numbers are those of IEC 61850-8-1 (stNum, sqNum) and IEC 61850-9-2
// (smpCnt).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "goosestack/mac_address.h"
#include "supervision/stream_time.h"

namespace tarnlink {

enum class StreamKind : std::uint8_t { goose, sv };

namespace happening {

/// The first message of a stream.
struct Appeared {};
/// GOOSE: stNum one up; indexes of the dataset's members whose value differs.
struct Changed {
  std::uint32_t stNum = 0;
  std::vector<std::uint32_t> members;
};
/// No message for so long.
struct Expired {
  std::chrono::microseconds after{};
};
/// The next message after that, so long after the expiry.
struct Recovered {
  std::chrono::microseconds downtime{};
};
/// Numbers left out. Uncertain: our own capture dropped frames since the stream's last message.
struct Lost {
  std::uint64_t count = 0;
  bool uncertain = false;
};
/// GOOSE: stNum more than one up; the states in between.
struct StateSkipped {
  std::uint64_t count = 0;
  bool uncertain = false;
};
/// Same numbers, same content again.
struct Duplicate {};
/// Numbers behind those seen, and no restart. GOOSE: stNum and sqNum; SV: smpCnt.
struct OutOfOrder {
  std::uint32_t stNum = 0;
  std::uint32_t sqNum = 0;
  std::uint16_t smpCnt = 0;
};
/// GOOSE: the publisher counts from its beginning again.
struct Restarted {};
struct ConfRevChanged {
  std::uint32_t from = 0;
  std::uint32_t to = 0;
};
/// Dataset reference, number or types of members; SV: reference or octets of the sample.
struct DatasetChanged {};
/// GOOSE: members' values differ, stNum does not.
struct ChangedWithoutStNum {
  std::vector<std::uint32_t> members;
};
struct SourceChanged {
  goosestack::MacAddress from{};
  goosestack::MacAddress to{};
};
/// GOOSE: numDatSetEntries is not the number of values. Told when it begins and when it changes.
struct EntriesWrong {
  std::uint32_t said = 0;
  std::uint32_t found = 0;
};
/// GOOSE: told when it begins.
struct TimeAllowedToLiveZero {};
/// GOOSE: the flag's new value.
struct NeedsCommission {
  bool value = false;
};
struct SmpSynchChanged {
  std::uint8_t from = 0;
  std::uint8_t to = 0;
};
/// Events of the last second that were counted but not told.
struct Suppressed {
  std::uint64_t count = 0;
};

}  // namespace happening

using Happening =
    std::variant<happening::Appeared, happening::Changed, happening::Expired, happening::Recovered,
                 happening::Lost, happening::StateSkipped, happening::Duplicate,
                 happening::OutOfOrder, happening::Restarted, happening::ConfRevChanged,
                 happening::DatasetChanged, happening::ChangedWithoutStNum,
                 happening::SourceChanged, happening::EntriesWrong,
                 happening::TimeAllowedToLiveZero, happening::NeedsCommission,
                 happening::SmpSynchChanged, happening::Suppressed>;

/// By the variant's index: "appeared", "changed", ...
std::string_view happeningName(std::size_t index);

struct StreamEvent {
  std::uint32_t id = 0;
  StreamKind kind = StreamKind::goose;
  std::string name;  ///< goCBRef or svID.
  StreamTime at{};
  Happening what;
};

/// How often each fault happened to a stream.
class FaultCounts {
 public:
  /// `lost` by its count, uncertain gaps apart, all others by one. What is no fault counts nothing.
  void add(const Happening& what);

  /// Of the fault with this index in Happening; 0 for those that are none.
  std::uint64_t of(std::size_t index) const { return counts_[index]; }
  std::uint64_t uncertain() const { return uncertain_; }

 private:
  std::array<std::uint64_t, std::variant_size_v<Happening>> counts_{};
  std::uint64_t uncertain_ = 0;
};

}  // namespace tarnlink
