// Tags of the dataset values that the stack interprets (IEC 61850-8-1, MMS Data). Shared by the
// two halves of the PDU codec.
#pragma once

#include <cstdint>

namespace goosestack {

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

}  // namespace goosestack
