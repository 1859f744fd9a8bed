#pragma once

#include <cstdint>

namespace kelvane {

/// The name of a system call that a thread may wait in; null for any other.
const char* syscallName(int64_t number);

}  // namespace kelvane
