#pragma once

#include <sys/types.h>

#include <vector>

namespace kelvane {

/// A process that descends from another one, as proc(5) tells it.
struct Descendant {
  pid_t pid = 0;
  pid_t parent = 0;
  std::vector<pid_t> threads;  // its first one first
};

}  // namespace kelvane
