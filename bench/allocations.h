#pragma once

#include <cstdint>

/// What the whole program has taken from the heap: operator new and calloc. Linked into a benchmark that says
/// what a step allocates; from any thread.
struct Allocations {
  int64_t count = 0;
  int64_t bytes = 0;
};

Allocations allocationsSoFar();
