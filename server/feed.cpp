#include "server/feed.h"

namespace tarnlink {

std::string dropLine(const std::string& interface, const goosestack::CaptureDrops& drops) {
  const std::string total = std::to_string(drops.total);
  return "✗ capture on " + interface +
         (drops.isLast ? " has ended; the kernel dropped " + total + " frames in all"
                       : ": the kernel dropped " + std::to_string(drops.fresh) + " frames, " +
                             total + " so far");
}

}  // namespace tarnlink
