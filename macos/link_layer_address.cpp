#include "macos/link_layer_address.h"

#include <algorithm>

namespace goosestack {

std::optional<MacAddress> macBytesFromSockaddrDL(ByteView address) {
  constexpr std::size_t kNameLengthAt = 5;
  constexpr std::size_t kAddressLengthAt = 6;
  constexpr std::size_t kDataAt = 8;
  constexpr std::size_t kBaseSize = 20;  // Of the structure, whatever its length field says.
  MacAddress mac;
  if (address.size() < kDataAt) return std::nullopt;
  if (address[kAddressLengthAt] < mac.size()) return std::nullopt;
  const std::size_t begin = kDataAt + address[kNameLengthAt];
  const std::size_t end = begin + mac.size();
  if (end > std::max<std::size_t>(address[0], kBaseSize) || end > address.size()) {
    return std::nullopt;
  }
  std::copy_n(address.begin() + static_cast<std::ptrdiff_t>(begin), mac.size(), mac.begin());
  return mac;
}

}  // namespace goosestack
