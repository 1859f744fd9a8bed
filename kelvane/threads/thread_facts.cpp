#include "kelvane/threads/thread_facts.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/kernel/kernel_look.h"

namespace kelvane {
namespace {

uint64_t msOfClockTicks(uint64_t ticks) {
  static const auto perSecond = static_cast<uint64_t>(std::max(sysconf(_SC_CLK_TCK), 1L));
  return ticks * 1000 / perSecond;
}

/// A stop makes some waits go on as restart_syscall(2), with the arguments still in the registers; every copy
/// of the stack is such a stop. Where the thread waits tells which call it was.
int64_t callBeforeRestart(const std::string& waitChannel) {
  auto waitsIn = [&](const char* part) { return waitChannel.find(part) != std::string::npos; };
  if (waitsIn("poll")) return SYS_ppoll;
  if (waitsIn("futex")) return SYS_futex;
  if (waitsIn("nanosleep")) return SYS_clock_nanosleep;
  return SYS_restart_syscall;
}

void noteOnce(std::vector<Omission>& omissions, const char* what, int error) {
  bool known =
      std::any_of(omissions.begin(), omissions.end(), [&](const Omission& o) { return o.what == what; });
  // A thread that went away is no omission.
  if (!known && error != ENOENT && error != ESRCH) omissions.push_back({what, errorText(error)});
}

}  // namespace

std::string taskPath(pid_t tid, const char* name) {
  return "task/" + std::to_string(tid) + "/" + name;
}

std::optional<ThreadFacts> readThreadFacts(int processDir, pid_t tid, std::vector<Omission>& omissions) {
  auto read = [&](const char* name) {
    return readFileAt(processDir, taskPath(tid, name).c_str(), kMaxProcFileBytes);
  };
  // Before the directory, which knows whether the number was that thread's all the time.
  FileText stack = kernelStackOf(tid);
  auto stat = parseStat(read("stat").text);
  if (!stat) return std::nullopt;
  ThreadFacts facts;
  facts.tid = tid;
  facts.comm = stat->comm;
  facts.state = stat->state;
  facts.priority = stat->priority;
  facts.userMs = msOfClockTicks(stat->userTicks);
  facts.systemMs = msOfClockTicks(stat->systemTicks);

  FileText status = read("status");
  facts.voluntarySwitches = parseStatusNumber(status.text, "voluntary_ctxt_switches");
  facts.tracerPid = static_cast<pid_t>(parseStatusNumber(status.text, "TracerPid"));
  facts.involuntarySwitches = parseStatusNumber(status.text, "nonvoluntary_ctxt_switches");

  // "0" stands for a running thread, and for any thread that the reader may not look into.
  FileText wchan = read("wchan");
  if (wchan.text != "0") facts.waitChannel = wchan.text;
  FileText syscall = read("syscall");
  facts.syscall = parseSyscall(syscall.text);
  if (facts.syscall && facts.syscall->number == SYS_restart_syscall) {
    facts.syscall->number = callBeforeRestart(facts.waitChannel);
  }
  if (syscall.error) noteOnce(omissions, "wait channels and system calls", syscall.error);
  if (stack.error) stack = read("stack");
  facts.kernelStack = parseKernelStack(stack.text, kMaxKernelFrames);
  if (stack.error) noteOnce(omissions, "kernel stacks", stack.error);
  return facts;
}

bool isStillIn(const std::optional<SystemCall>& before, const std::optional<SystemCall>& now) {
  if (!before || !now) return before == now;
  // `callBeforeRestart` tells poll(2) from ppoll(2) no more, nor nanosleep(2) from clock_nanosleep(2).
  int64_t whenRestarted = before->number;
#ifdef SYS_poll
  if (whenRestarted == SYS_poll) whenRestarted = SYS_ppoll;
#endif
  if (whenRestarted == SYS_nanosleep) whenRestarted = SYS_clock_nanosleep;
  const bool isSameCall =
      now->number == before->number || now->number == whenRestarted || now->number == SYS_restart_syscall;
  return isSameCall && before->arguments == now->arguments;
}

pid_t threadCalled(int processDir, int64_t id) {
  if (id <= 0 || id > INT_MAX) return 0;
  const auto called = static_cast<pid_t>(id);
  const auto innerId = [&](const std::string& status) {
    return parseInnerId(readFileAt(processDir, status.c_str(), kMaxProcFileBytes).text);
  };
  if (innerId("status") == 0) {
    return faccessat(processDir, taskPath(called, "stat").c_str(), F_OK, 0) == 0 ? called : 0;
  }
  const Deadline over(kThreadSearch);
  for (const pid_t tid : listNumbersAt(processDir, "task", kMaxThreadsCounted)) {
    if (over.passed()) break;
    if (innerId(taskPath(tid, "status")) == called) return tid;
  }
  return 0;
}

char readThreadState(int processDir, pid_t tid) {
  auto stat = parseStat(readFileAt(processDir, taskPath(tid, "stat").c_str(), kMaxProcFileBytes).text);
  return stat ? stat->state : '?';
}

}  // namespace kelvane
