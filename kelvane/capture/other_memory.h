#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvane {

/// Reads memory of another process, as far as it goes; how many bytes. Can block in the kernel for good.
size_t readOther(pid_t pid, uint64_t address, void* into, size_t length);

/// The text at an address of another process, up to its 0; empty if there is none.
std::string readOtherText(pid_t pid, uint64_t address);

}  // namespace kelvane
