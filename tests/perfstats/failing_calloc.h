#pragma once

#include <cstddef>

namespace quorveld {

/// Lets the next calloc of exactly `bytes` fail. The library under test is linked with its calloc
/// calls wrapped.
void failCalloc(size_t bytes);

/// How many wrapped callocs there were in this program.
int callocCount();

}  // namespace quorveld
