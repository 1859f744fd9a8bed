#pragma once

#include <cstdint>
#include <string>

/// Events are in the kernel's own time and thread ids, which are not those that a process in namespaces
/// (namespaces(7)) knows. What is kept of a recording stays in the kernel's; `readRecording` translates.
namespace kelvane {

/// Nanoseconds of the events' clock: the kernel's own CLOCK_MONOTONIC.
uint64_t kernelNs();

/// By how much CLOCK_MONOTONIC of this process is ahead of it: 0 outside of a time namespace.
int64_t clockOffsetNs();

/// Why this process can't tell whose events they are; empty if it can: it is in the initial PID namespace.
/// Nothing that a process elsewhere may read knows what the kernel calls its threads.
std::string foreignThreads();

}  // namespace kelvane
