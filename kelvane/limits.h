#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelvane {

// Time. The caller's queue stands still during a capture, and a hung process is exactly the one whose files
// and threads may not answer.

/// How long the process may be looked at before the report is written with what is there.
inline constexpr std::chrono::milliseconds kCaptureBudget{2'500};
/// When looking at further threads stops, so that a capture that merely has much to do ends by itself.
inline constexpr std::chrono::milliseconds kWorkBudget{2'000};
/// How long a thread may take to stop, the hung one and any other; on a machine short of CPU even a willing
/// one does.
inline constexpr std::chrono::milliseconds kHungThreadStopWait{250};
inline constexpr std::chrono::milliseconds kThreadStopWait{50};
/// How long the copy of one thread may take, the wait included: what traces it is ended then, which lets it
/// run on.
inline constexpr std::chrono::milliseconds kCopyLimit{500};

// The process named by the header.

inline constexpr size_t kMaxThreadsCounted = 65'536;
inline constexpr size_t kMaxThreadsListed = 1'024;
inline constexpr size_t kMaxThreadsWithStack = 256;
inline constexpr size_t kMaxStackBytes = size_t{64} * 1024;
/// Stack bytes held at a time: copying pauses here, and what was copied is unwound first.
inline constexpr size_t kMaxCopiedBytes = size_t{2} * 1024 * 1024;
inline constexpr size_t kMaxFramesPerStack = 256;
inline constexpr size_t kMaxKernelFrames = 64;
inline constexpr size_t kMaxMapsBytes = size_t{16} * 1024 * 1024;
inline constexpr size_t kMaxModules = 4'096;
/// A section of an ELF file that is read for unwinding or naming; a file with a larger one is left alone.
inline constexpr uint64_t kMaxSectionBytes = uint64_t{64} * 1024 * 1024;
/// A longer mangled name is written as it is: demangling may grow it without end.
inline constexpr size_t kMaxMangledBytes = 1'024;
inline constexpr size_t kMaxNameBytes = 4'096;

// All processes.

/// How long the search for the other end of a pipe or socket may take, and how many descriptors of a process
/// it looks at.
inline constexpr std::chrono::milliseconds kPeerSearchBudget{200};
inline constexpr size_t kMaxDescriptorsSearched = 4'096;

inline constexpr size_t kMaxProcessesScanned = 16'384;
inline constexpr size_t kMaxProcessesListed = 256;

// The header and the small files of /proc.

inline constexpr size_t kMaxHeaderBytes = size_t{1024} * 1024;
inline constexpr int kMaxHeaderDepth = 64;
inline constexpr size_t kMaxProcFileBytes = size_t{64} * 1024;

}  // namespace kelvane
