#pragma once

#include <sys/types.h>

#include <vector>

#include "kelvane/process_capture.h"

namespace kelvane {

/// The file `task/TID/NAME` of a process's directory in /proc.
std::string taskPath(pid_t tid, const char* name);

/// Reads what /proc says of a thread. `processDir` is the process's directory: it stays bound to that very
/// process, so a reused process id is never taken for it. Nothing if the thread has gone. What is not
/// permitted is added to `omissions`, once per kind.
std::optional<ThreadFacts> readThreadFacts(int processDir, pid_t tid, std::vector<Omission>& omissions);

/// The thread's state right now (proc(5)); '?' if it has gone.
char readThreadState(int processDir, pid_t tid);

}  // namespace kelvane
