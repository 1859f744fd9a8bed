#include "tests/perfstats/failing_calloc.h"

namespace {

size_t failingBytes = 0;
bool failing = false;
int calls = 0;

}  // namespace

// The linker's --wrap chooses these names.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void* __real_calloc(size_t count, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
  ++calls;
  if (failing && count * size == failingBytes) {
    failing = false;
    return nullptr;
  }
  return __real_calloc(count, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace quorveld {

void failCalloc(size_t bytes) {
  failingBytes = bytes;
  failing = true;
}

int callocCount() {
  return calls;
}

}  // namespace quorveld
