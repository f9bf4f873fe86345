#include "tests/stack/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t count = 0;
}

void* operator new(std::size_t size) {
  ++count;
  if (void* storage = std::malloc(size != 0 ? size : 1)) return storage;
  throw std::bad_alloc();
}
void operator delete(void* storage) noexcept {
  std::free(storage);
}
void operator delete(void* storage, std::size_t) noexcept {
  std::free(storage);
}

namespace tarnlink::test {

std::size_t allocationCount() {
  return count;
}

}  // namespace tarnlink::test
