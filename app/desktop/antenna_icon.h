// The program's icon: an antenna, struck through while the bridge does not serve.
#pragma once

#include <QIcon>

namespace tarnlink {

/// In the sizes that status bars use. Its colours are readable on light and on dark bars: nothing
/// tints an icon on Linux.
QIcon antennaIcon(bool isRunning);

}  // namespace tarnlink
