// Tags of the GOOSE PDU (IEC 61850-8-1), shared by the two halves of its codec.
#pragma once

#include <cstddef>
#include <cstdint>

namespace goosestack {

inline constexpr std::uint8_t kTagGoosePdu = 0x61;
inline constexpr std::uint8_t kTagAllData = 0xAB;

/// The fields in front of allData, in standard order. Their tags are 0x80 plus these numbers.
enum Field : std::uint8_t {
  kGocbRef,
  kTimeAllowedToLive,
  kDatSet,
  kGoId,
  kTime,
  kStNum,
  kSqNum,
  kSimulation,
  kConfRev,
  kNdsCom,
  kNumDatSetEntries,
  kFieldCount,
};
inline constexpr std::uint8_t kFirstFieldTag = 0x80;

/// Dataset values that the stack interprets (MMS Data).
inline constexpr std::uint8_t kTagBoolean = 0x83;
inline constexpr std::uint8_t kTagBitString = 0x84;
inline constexpr std::uint8_t kTagInteger = 0x85;
inline constexpr std::uint8_t kTagUnsigned = 0x86;
inline constexpr std::uint8_t kTagFloatingPoint = 0x87;
inline constexpr std::uint8_t kTagRealDouble = 0x88;  // Written, but read as `unknown`.
inline constexpr std::uint8_t kTagOctetString = 0x89;
inline constexpr std::uint8_t kTagVisibleString = 0x8A;
inline constexpr std::uint8_t kTagUtcTime = 0x91;
inline constexpr std::uint8_t kTagArray = 0xA1;
inline constexpr std::uint8_t kTagStructure = 0xA2;

/// Steps of a UtcTime's fraction in a second: 2^24.
inline constexpr double kFractionsPerSecond = 16777216.0;
/// Octets in front of the PDU element.
inline constexpr std::size_t kGooseHeaderLength = 8;

}  // namespace goosestack
