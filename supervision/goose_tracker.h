// Follows the numbers and the dataset of one GOOSE stream (IEC 61850-8-1, 18.1: stNum, sqNum).
#pragma once

#include <array>
#include <cstdint>

#include "supervision/member_prints.h"
#include "supervision/sighting.h"
#include "supervision/stream_row.h"
#include "supervision/teller.h"

namespace tarnlink {

/// A plain value. The row keeps what is shown, the tracker what is only compared.
class GooseTracker {
 public:
  /// The stream's first message.
  void begin(const GooseSighting& message, StreamRow& row, Teller& teller);

  /// Every further one. `uncertain`: our own capture dropped frames since the one before.
  void see(const GooseSighting& message, bool uncertain, StreamRow& row, Teller& teller);

 private:
  struct Numbers {
    std::uint32_t stNum = 0;
    std::uint32_t sqNum = 0;
    bool operator==(const Numbers&) const = default;
  };
  struct Recent {
    Numbers numbers;
    StreamTime at{};
  };
  enum class Step { sameState, nextState, jump };

  void seeBehind(const GooseSighting& message, StreamRow& row, Teller& teller);
  bool isRecent(Numbers numbers, StreamTime at) const;
  bool isSameContent(const GooseSighting& message, const StreamRow& row) const;
  /// The message's numbers and content become the stream's.
  void adopt(const GooseSighting& message, Step step, StreamRow& row, Teller& teller);
  void compareDataset(const GooseSighting& message, Step step, StreamRow& row, Teller& teller);

  // A burst of state changes within the time of a redundant copy.
  static constexpr std::size_t kRecent = 8;

  MemberPrints members_;
  std::array<Recent, kRecent> recent_{};
  std::uint8_t newest_ = 0;    // In recent_.
  std::uint8_t strays_ = 0;    // Behind, in a row, each the next of the one before.
  bool startsAtZero_ = false;  // Seen to number a state's first message 0.
  std::uint32_t found_ = 0;    // Values of the last message.
  Numbers stray_;              // The last one behind.
  goosestack::TimePoint timestamp_{};
};

}  // namespace tarnlink
