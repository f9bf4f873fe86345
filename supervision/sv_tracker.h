// Follows the numbers of one stream of Sampled Values (IEC 61850-9-2, IEC 61869-9: smpCnt).
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>

#include "goosestack/sv_pdu.h"
#include "supervision/stream_row.h"
#include "supervision/teller.h"

namespace tarnlink {

/// A plain value. The row keeps what is shown, the tracker what is only compared.
class SvTracker {
 public:
  void begin(const goosestack::SvAsdu& asdu, StreamTime at, StreamRow& row);
  /// `uncertain`: our own capture dropped frames since the stream's message before.
  void see(const goosestack::SvAsdu& asdu, StreamTime at, bool uncertain, StreamRow& row,
           Teller& teller);

  /// What came before says nothing about the rate any more.
  void startMeasuring(StreamTime at);
  /// Silence after which the stream is held expired.
  std::chrono::microseconds timeout(const StreamRow& row, StreamTime now) const;

 private:
  /// Numbers that the counter can have; 65,536 until its wrap is known.
  std::uint32_t range(const StreamRow& row) const;
  bool learnWrap(const goosestack::SvAsdu& asdu, StreamRow& row);
  void seeBehind(const goosestack::SvAsdu& asdu, StreamTime at, std::uint32_t back, StreamRow& row,
                 Teller& teller);
  void advance(std::uint16_t smpCnt, std::uint32_t steps, StreamTime at, StreamRow& row);
  void compareConfiguration(const goosestack::SvAsdu& asdu, StreamRow& row, Teller& teller);

  std::bitset<128> seen_;  // [i]: i before the newest one.
  std::uint64_t content_ = 0;
  StreamTime measuredFrom_{};
  std::uint32_t measured_ = 0;  // Samples since then, lost ones included.
  std::uint16_t stray_ = 0;     // The last one behind.
  std::uint16_t lastTop_ = 0;   // Where the counter fell to 0 the last time, unlearnt.
  std::uint8_t strays_ = 0;     // Behind, in a row, each the next of the one before.
};

}  // namespace tarnlink
