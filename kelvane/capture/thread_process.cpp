#include "kelvane/capture/thread_process.h"

#include <fcntl.h>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {
namespace {

std::string readProc(int32_t id, const char* file) {
  std::string path = "/proc/" + std::to_string(id) + "/" + file;
  return readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text;
}

}  // namespace

pid_t processOf(pid_t tid) {
  return static_cast<pid_t>(parseStatusNumber(readProc(tid, "status"), "Tgid"));
}

void findProcess(NamedThread& thread) {
  // proc(5): a thread's directory is there even if it is no process's first.
  auto stat = parseStat(readProc(thread.tid, "stat"));
  if (!stat || stat->comm != thread.name) return;
  const pid_t pid = processOf(thread.tid);
  auto process = pid == 0 ? std::nullopt : parseStat(readProc(pid, "stat"));
  if (!process) return;
  thread.pid = pid;
  thread.priority = stat->priority;
  thread.process = process->comm;
}

}  // namespace kelvane
