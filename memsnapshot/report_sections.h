#pragma once

#include <string>

namespace quorveld {

// The four sections of a memory report's body, each appended whole. False when the kernel refused something
// without which the report would mislead: then it must not be kept.

/// The host's VM counters, in pages; never refused: a failure stands in the report.
void appendVmCounters(std::string& report);

/// Every process that has a ledger, with its priority, footprint in pages, dirty state and assertions.
[[nodiscard]] bool appendProcesses(std::string& report);

/// The kernel's zones and its wired memory by tag, extension, call site and counter, in pages.
[[nodiscard]] bool appendKernelMemory(std::string& report);

}  // namespace quorveld
