#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>

#include "kelvane/capture/likely_thread.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// What a thread waits at in futex(2): the call's arguments, and the memory from the word on that it waits
/// at.
struct FutexView {
  uint64_t address = 0;
  uint32_t operation = 0;
  uint32_t expected = 0;
  std::array<uint32_t, 6> words{};
};

/// Who owns what a futex belongs to, as its memory says it. Bytes that are no lock can look like one: what
/// doesn't lead to a thread counts for nothing.
struct FutexOwner {
  WaitKind kind = WaitKind::lock;
  pid_t tid = 0;              // as the process itself calls it
  uint64_t threadStruct = 0;  // of a stream's lock: where the C library keeps the owner's record, instead
  const char* evidence = "";
};

/// Knows the C library's locks: mutexes (glibc's of 64-bit machines, priority-inheriting, robust and shared
/// ones included, and musl's), read-write locks, and the end of a thread. Nothing if this looks like none.
std::optional<FutexOwner> ownerOfFutex(const FutexView& view);
/// The lock of a stdio stream, which looks like a mutex with an odd owner.
std::optional<FutexOwner> ownerOfStream(const FutexView& view);

/// What the party waits for in futex(2), and who ends that. Reads the process's memory, which can block in
/// the kernel. Nothing if it waits for no futex, or does no more.
std::optional<PartyWait> futexWait(int processDir, const WaitParty& party, ThreadLists& threads);

}  // namespace kelvane
