#include "tests/perfstats/failing_calloc.h"

namespace {

size_t failingBytes = 0;
int failingCountdown = 0;
int calls = 0;

}  // namespace

extern "C" {

void* __real_calloc(size_t count, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
  ++calls;
  const bool fails = failingCountdown > 0 && count * size == failingBytes && --failingCountdown == 0;
  return fails ? nullptr : __real_calloc(count, size);
}
}

namespace quorveld {

void failCalloc(size_t bytes, int nth) {
  failingBytes = bytes;
  failingCountdown = nth;
}

int callocCount() {
  return calls;
}

}  // namespace quorveld
