#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>

#include "kelvane/threads/thread_facts.h"

namespace kelvane {

/// The first words of a mutex, from the one that futex(2) waits on.
using MutexWords = std::array<uint32_t, 5>;

/// The thread id that a contended mutex names as its owner; 0 if this looks like none. Knows the C library's
/// mutexes (glibc's of 64-bit machines, priority-inheriting and robust ones included, and musl's). Bytes that
/// are no mutex can look like one: the caller checks that the id is a thread's.
pid_t ownerInMutex(const MutexWords& words);

/// The thread that holds the lock which the thread of `facts` waits for; 0 if it waits for none, or the owner
/// can't be told. It is a thread of the same process, perhaps the waiting one itself. Reads the process's
/// memory, which can block in the kernel.
pid_t lockOwner(int processDir, pid_t pid, const ThreadFacts& facts);

}  // namespace kelvane
