// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include "goosestack/bytes.h"

namespace goosestack {

bool isValidUtf8(ByteView octets);

}  // namespace goosestack
