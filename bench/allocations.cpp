#include "bench/allocations.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int64_t> allocations{0};
std::atomic<int64_t> allocatedBytes{0};

void count(size_t bytes) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  allocatedBytes.fetch_add(static_cast<int64_t>(bytes), std::memory_order_relaxed);
}

}  // namespace

Allocations allocationsSoFar() {
  return {allocations.load(std::memory_order_relaxed), allocatedBytes.load(std::memory_order_relaxed)};
}

void* operator new(size_t bytes) {
  count(bytes);
  void* memory = std::malloc(bytes);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

// The linker's --wrap chooses these names.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t members, size_t size) {
  count(members * size);
  return __real_calloc(members, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)
