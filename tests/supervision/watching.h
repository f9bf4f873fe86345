// Histories of frames in short words, and what the supervision tells of them in one line.
#pragma once

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "supervision/stream_watch.h"

namespace tarnlink::test {

inline StreamTime atMs(double ms) {
  return StreamTime(std::chrono::microseconds(1'700'000'000'000'000 + std::llround(ms * 1000)));
}

inline goosestack::MacAddress mac(std::uint8_t last) {
  return {0x02, 0, 0, 0, 0, last};
}

/// One GOOSE message.
struct Goose {
  double ms = 0;
  std::uint32_t stNum = 1;
  std::uint32_t sqNum = 0;
  std::vector<int> values{10, 20};
  std::uint32_t confRev = 1;
  std::uint32_t ttl = 1000;
  std::uint8_t source = 1;
  int said = -1;  // numDatSetEntries where it is not the number of values.
  bool ndsCom = false;
  std::string dataSet = "ds";
  double changedAt = 0;     // `t`.
  std::uint64_t drops = 0;  // Of the kernel, until here.
  std::string name = "cb";
};

inline void show(StreamWatch& watch, const Goose& goose, StreamWatch::Events& events) {
  std::vector<goosestack::GooseDataValue> values;
  for (const int value : goose.values) {
    // Negative ones stand for another type.
    values.push_back(value < 0 ? goosestack::GooseDataValue::boolean(true)
                               : goosestack::GooseDataValue::integer(value));
  }
  watch.noteDrops(goose.drops);
  watch.see({.frame = {.at = atMs(goose.ms), .srcMac = mac(goose.source), .dstMac = mac(99)},
             .appId = 1,
             .goCBRef = goose.name,
             .dataSet = goose.dataSet,
             .goId = "id",
             .timestamp = goosestack::timeFromUnixSeconds(goose.changedAt),
             .stNum = goose.stNum,
             .sqNum = goose.sqNum,
             .needsCommission = goose.ndsCom,
             .confRev = goose.confRev,
             .timeAllowedToLive = goose.ttl,
             .numEntries = goose.said < 0 ? static_cast<std::uint32_t>(values.size())
                                          : static_cast<std::uint32_t>(goose.said),
             .values = values},
            events);
}

/// One frame of Sampled Values with one ASDU.
struct Sv {
  double ms = 0;
  int smpCnt = 0;
  std::uint8_t content = 1;
  std::uint32_t confRev = 1;
  std::uint8_t smpSynch = 2;
  std::uint8_t source = 1;
  std::size_t octets = 64;
  std::uint64_t drops = 0;
};

inline void show(StreamWatch& watch, const Sv& sv, StreamWatch::Events& events) {
  static goosestack::SvPdu pdu;
  const goosestack::Bytes samples(sv.octets, sv.content);
  pdu.appId = 0x4000;
  pdu.asdus.resize(1);
  pdu.asdus[0] = {.svId = "MU",
                  .smpCnt = static_cast<std::uint16_t>(sv.smpCnt),
                  .confRev = sv.confRev,
                  .smpSynch = sv.smpSynch,
                  .samples = samples};
  watch.noteDrops(sv.drops);
  watch.see({.at = atMs(sv.ms), .srcMac = mac(sv.source), .dstMac = mac(99)}, pdu, events);
}

inline std::string textOf(const goosestack::MacAddress& mac) {
  return " " + std::to_string(mac[5]);
}
inline std::string textOf(std::chrono::microseconds time) {
  return " " + std::to_string(time.count() / 1000);
}
inline std::string textOf(std::uint64_t number) {
  return " " + std::to_string(number);
}
inline std::string textOf(const std::vector<std::uint32_t>& members) {
  std::string text = " [";
  for (const std::uint32_t member : members) text += textOf(member);
  return text + " ]";
}

inline std::string detailsOf(const Happening& what) {
  return std::visit(
      [](const auto& it) {
        std::string text;
        if constexpr (requires { it.stNum; }) text += textOf(it.stNum);
        if constexpr (requires { it.smpCnt; }) text += textOf(it.sqNum) + textOf(it.smpCnt);
        if constexpr (requires { it.members; }) text += textOf(it.members);
        if constexpr (requires { it.after; }) text += textOf(it.after);
        if constexpr (requires { it.downtime; }) text += textOf(it.downtime);
        if constexpr (requires { it.count; }) text += textOf(it.count);
        if constexpr (requires { it.uncertain; }) text += it.uncertain ? "?" : "";
        if constexpr (requires { it.from; }) text += textOf(it.from) + textOf(it.to);
        if constexpr (requires { it.said; }) text += textOf(it.said) + textOf(it.found);
        if constexpr (requires { it.value; }) text += textOf(it.value);
        return text;
      },
      what);
}

/// "appeared, lost 2, ..."
inline std::string told(const StreamWatch::Events& events) {
  std::string text;
  for (const StreamEvent& event : events) {
    if (!text.empty()) text += ", ";
    text += std::string(happeningName(event.what.index())) + detailsOf(event.what);
  }
  return text;
}

inline std::uint64_t faultsOf(const StreamRow& row, std::string_view name) {
  for (std::size_t i = 0; i < std::variant_size_v<Happening>; ++i) {
    if (happeningName(i) == name) return row.faults.of(i);
  }
  return name == "uncertain" ? row.faults.uncertain() : 0;
}

}  // namespace tarnlink::test
