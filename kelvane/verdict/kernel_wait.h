#pragma once

#include <cstdint>

#include "kelvane/threads/thread_facts.h"

namespace kelvane {

/// What a thread in the kernel waits for, by the functions that it waits in.
enum class KernelWait : uint8_t {
  unknown,
  disk,
  page,        // of a file, wherever that is: on a disk, or behind the server of its file system
  fileSystem,  // on a disk; for that, or for another thread
  swap,        // memory that was taken from it
  memory,      // that had to be freed first
  server,      // of its file system: FUSE, NFS and the like
  child,       // that was made by vfork, and has its parent's memory until it executes a program
  lock,        // of the kernel's own
  frozen,      // its control group
  quota,       // of its control group's CPU time
};

/// Whether threads wait there for disks, among others.
bool isForDisk(KernelWait wait);

/// Goes by the wait channel first, then by the kernel's stack from the innermost function outwards.
KernelWait kernelWait(const ThreadFacts& facts);

}  // namespace kelvane
