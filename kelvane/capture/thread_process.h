#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane {

/// A thread that had to do with the hang.
struct NamedThread {
  int32_t tid = 0;
  std::string name;
  pid_t pid = 0;  // of its process; 0: not known
  std::string process;
  std::optional<int> priority{};  // the kernel's (ProcStat); nothing: not known
};

/// Fills in the process and the priority of a thread, if the thread is still there under the name that was
/// recorded: its id may have passed to another since.
void findProcess(NamedThread& thread);

/// The process of the thread that /proc calls `tid`; 0: there is none.
pid_t processOf(pid_t tid);

}  // namespace kelvane
