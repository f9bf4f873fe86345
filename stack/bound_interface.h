// What a packet socket is bound to.
#pragma once

namespace goosestack {

/// The index of the interface on which a packet socket sends; -1 when that has gone.
int boundInterface(int socket);

}  // namespace goosestack
