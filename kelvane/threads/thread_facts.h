#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/base/omission.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {

/// What /proc tells of a thread, without stopping it.
struct ThreadFacts {
  pid_t tid = 0;
  std::string comm;
  char state = '?';         // proc(5); '?' if the thread went away
  std::string waitChannel;  // empty: not waiting, or not permitted
  int priority = 0;         // the kernel's (ProcStat)
  pid_t tracerPid = 0;      // the process that traces it; 0: none
  std::optional<SystemCall> syscall;
  std::vector<std::string> kernelStack;  // innermost first
  uint64_t userMs = 0;
  uint64_t systemMs = 0;
  uint64_t voluntarySwitches = 0;
  uint64_t involuntarySwitches = 0;
};

/// The file `task/TID/NAME` of a process's directory in /proc.
std::string taskPath(pid_t tid, const char* name);

/// Reads what /proc says of a thread. `processDir` is the process's directory: it stays bound to that very
/// process, so a reused process id is never taken for it. Nothing if the thread has gone. What is not
/// permitted is added to `omissions`, once per kind.
std::optional<ThreadFacts> readThreadFacts(int processDir, pid_t tid, std::vector<Omission>& omissions);

/// Whether a thread that was found in `before` is in that wait, or in another one like it, by a later look: a
/// stop lets some go on as restart_syscall(2), which doesn't always show what it was.
bool isStillIn(const std::optional<SystemCall>& before, const std::optional<SystemCall>& now);

/// The process's thread that it calls `id` itself, which in a PID namespace of its own is another number than
/// /proc has here; 0: it has none, or none was found within kThreadSearch.
pid_t threadCalled(int processDir, int64_t id);

/// The thread's state right now (proc(5)); '?' if it has gone.
char readThreadState(int processDir, pid_t tid);

}  // namespace kelvane
