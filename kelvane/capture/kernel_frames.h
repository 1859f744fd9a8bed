#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane {

/// What threads that waited were in, in the kernel: for each of `chains` (addresses, innermost first) its
/// functions, without the scheduler's, which all waits have in common. `error` is an errno value if the
/// kernel doesn't name them: all are empty then.
std::vector<std::vector<std::string>> kernelFrames(std::span<const std::vector<uint64_t>> chains, int& error);

}  // namespace kelvane
