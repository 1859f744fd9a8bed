#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>

#include "kelvane/base/proc_files.h"

namespace kelvane {

// Asked of the kernel by a BPF program. None waits for the process. The error is EPERM without CAP_BPF
// and CAP_PERFMON, and some other one where the kernel can't.

/// The kernel stack of a thread, as the text of proc(5)'s `stack`; empty if it has gone.
FileText kernelStackOf(pid_t tid);

/// The functions of return addresses in the kernel, a line each as in kernelStackOf. An address of 0 ends
/// them.
FileText kernelFunctionsAt(std::span<const uint64_t> addresses);

/// A `unix_socket_ends` for each Unix socket that a process has open, in whichever network namespace it was
/// made.
FileText unixSocketsOf(pid_t pid);

}  // namespace kelvane
