#pragma once

#include <cstddef>

namespace quorveld {

/// Lets the nth calloc of exactly `bytes` from now fail. The library under test is linked with its calloc
/// calls wrapped.
void failCalloc(size_t bytes, int nth = 1);

/// How many wrapped callocs there were in this program.
int callocCount();

}  // namespace quorveld
