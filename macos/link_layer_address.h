// Hardware addresses as BSD systems list them.
#pragma once

#include <optional>

#include "goosestack/bytes.h"
#include "goosestack/mac_address.h"

namespace goosestack {

/// The MAC in a BSD link-layer socket address (sockaddr_dl: length, family, index(2), type, name
/// length, address length, selector length, data); nothing when it holds fewer than 6 octets or
/// they would lie outside it.
std::optional<MacAddress> macBytesFromSockaddrDL(ByteView address);

}  // namespace goosestack
