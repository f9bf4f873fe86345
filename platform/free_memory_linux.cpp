#include "platform/free_memory.h"

#include <malloc.h>
#include <unistd.h>

#include <fstream>

namespace tarnlink {
namespace {

// Memory of this process alone: mapped files and capture buffers do not count. Octets.
std::size_t privateMemory() {
  std::ifstream statm("/proc/self/statm");  // proc(5); pages.
  std::size_t size = 0;
  std::size_t resident = 0;
  std::size_t shared = 0;
  statm >> size >> resident >> shared;
  if (!statm) return 0;
  return (resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

void returnFreeMemory() {
  const auto heap = ::mallinfo2();
  if (privateMemory() > heap.uordblks + heap.hblkhd + kKeptFreeMemory) ::malloc_trim(0);
}

}  // namespace tarnlink
