#include "goosestack/ethernet_frame.h"

#include <algorithm>
#include <cstddef>

namespace goosestack {
namespace {

constexpr std::size_t kMacLength = 6;          // Octets.
constexpr std::size_t kUntaggedHeader = 14;    // Octets in front of the payload.
constexpr std::size_t kTaggedHeader = 18;      // Octets in front of the payload.
constexpr std::uint16_t kVlanIdMask = 0x0FFF;  // VLAN identifier in the TCI.
constexpr int kPriorityShift = 13;             // Priority in the TCI.

std::uint16_t readUInt16(ByteView octets, std::size_t at) {
  return static_cast<std::uint16_t>(octets[at] << 8 | octets[at + 1]);
}

void appendUInt16(Bytes& out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

}  // namespace

std::optional<ParsedEthernetFrame> EthernetFrame::parse(ByteView frame, std::uint16_t etherType) {
  std::optional<ParsedEthernetFrame> result;  // Filled in place: copying it would cost most.
  if (frame.size() < kUntaggedHeader) return result;
  std::uint16_t foundType = readUInt16(frame, 12);
  const bool isTagged = foundType == kEtherTypeVlan;
  if (isTagged) {
    if (frame.size() < kTaggedHeader) return result;
    foundType = readUInt16(frame, 16);
  }
  if (foundType != etherType) return result;

  ParsedEthernetFrame& parsed = result.emplace();
  std::copy_n(frame.begin(), kMacLength, parsed.dstMac.begin());
  std::copy_n(frame.begin() + kMacLength, kMacLength, parsed.srcMac.begin());
  if (isTagged) {
    const std::uint16_t tci = readUInt16(frame, 14);
    parsed.vlanId = static_cast<std::uint16_t>(tci & kVlanIdMask);
    parsed.vlanPriority = static_cast<std::uint8_t>(tci >> kPriorityShift);
  }
  parsed.etherType = foundType;
  parsed.payload = frame.subspan(isTagged ? kTaggedHeader : kUntaggedHeader);
  return result;
}

Bytes EthernetFrame::build(ByteView dstMac, ByteView srcMac, std::uint16_t vlanId,
                           std::uint8_t vlanPriority, ByteView payload, std::uint16_t etherType) {
  Bytes frame;
  frame.reserve(kTaggedHeader + payload.size());
  frame.insert(frame.end(), dstMac.begin(), dstMac.end());
  frame.insert(frame.end(), srcMac.begin(), srcMac.end());
  if (vlanId != 0) {
    appendUInt16(frame, kEtherTypeVlan);
    appendUInt16(frame, static_cast<std::uint16_t>((vlanPriority << kPriorityShift) |
                                                   (vlanId & kVlanIdMask)));
  }
  appendUInt16(frame, etherType);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

}  // namespace goosestack
