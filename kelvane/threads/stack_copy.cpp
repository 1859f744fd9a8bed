#include "kelvane/threads/stack_copy.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

/// A CopyArea in memory that a forked process shares; its pages come when they are written.
class SharedArea {
 public:
  SharedArea() {
    void* memory = mmap(nullptr, sizeof(CopyArea), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) area_ = ::new (memory) CopyArea;
  }
  SharedArea(const SharedArea&) = delete;
  SharedArea& operator=(const SharedArea&) = delete;
  ~SharedArea() {
    if (area_) munmap(area_, sizeof(CopyArea));
  }
  explicit operator bool() const { return area_ != nullptr; }
  CopyArea* operator->() const { return area_; }
  CopyArea& operator*() const { return *area_; }

 private:
  CopyArea* area_ = nullptr;
};

/// Runs copyThreads in a process of its own and waits for its end. A tracer that the kernel holds up can be
/// ended from outside only if it is a process; its end releases whatever it still traces. It shares the table
/// of descriptors, so that it never keeps one open, and its end sends no signal. One that the kernel doesn't
/// even let end is left. False if it could not be started.
bool runCopier(int processDir, pid_t pid, const Deadline& deadline, CopyArea& area) {
  int raw = -1;
  area.busySinceNs = monotonicNs();
  auto copier =
      static_cast<pid_t>(syscall(SYS_clone, CLONE_FILES | CLONE_PIDFD, nullptr, &raw, nullptr, nullptr));
  if (copier == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    copyThreads(processDir, pid, deadline, area);
    _exit(0);
  }
  if (copier < 0) return false;
  UniqueFd pidfd(raw);
  constexpr uint64_t kLimitNs = std::chrono::nanoseconds(kCopyLimit).count();
  constexpr uint64_t kEndNs = std::chrono::nanoseconds(kCopierEnd).count();
  pollfd ended{pidfd.get(), POLLIN, 0};
  while (poll(&ended, 1, 10) <= 0) {
    const uint64_t busyNs = monotonicNs() - area.busySinceNs;
    if (busyNs > kLimitNs) kill(copier, SIGKILL);
    if (busyNs > kLimitNs + kEndNs) return true;
  }
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(copier), &info, WEXITED | __WALL) != 0 && errno == EINTR) {
  }
  return true;
}

/// Why PTRACE_SEIZE failed, for people.
StackOutcome refusal(int processDir, pid_t tid, int error) {
  char state = readThreadState(processDir, tid);
  if (error == ESRCH || state == '?' || state == 'Z' || state == 'X')
    return {tid, {}, "the thread has ended", false};
  FileText status = readFileAt(processDir, taskPath(tid, "status").c_str(), kMaxProcFileBytes);
  if (uint64_t tracer = parseStatusNumber(status.text, "TracerPid")) {
    return {tid, {}, "already traced by process " + std::to_string(tracer), true};
  }
  return {tid, {}, "not permitted to trace it: " + errorText(error), true};
}

StackOutcome outcomeOf(int processDir, const ThreadCopy& thread, const CopyArea& area) {
  switch (thread.result) {
    case CopyResult::copied: {
      auto start = area.bytes.begin() + static_cast<ptrdiff_t>(thread.offset);
      StackCopy copy{thread.registers,
                     thread.stackBase,
                     {start, start + static_cast<ptrdiff_t>(thread.length)},
                     thread.atNs,
                     static_cast<uint32_t>(thread.stoppedNs / 1000)};
      return {thread.tid, std::move(copy), {}, false};
    }
    case CopyResult::refused:
      return refusal(processDir, thread.tid, thread.error);
    case CopyResult::ended:
      return {thread.tid, {}, "the thread has ended", false};
    case CopyResult::didNotStop:
      return {thread.tid, {}, "it did not stop within " + std::to_string(thread.wait.count()) + " ms", false};
    case CopyResult::noRegisters:
      return {thread.tid, {}, "its registers can't be read (ended, or not a 64-bit program)", false};
    case CopyResult::begun:
    case CopyResult::pending:
      break;
  }
  return {thread.tid, {}, "the kernel held up its copy", false};
}

}  // namespace

std::vector<StackOutcome> copyStacks(int processDir, pid_t pid, std::span<const pid_t> tids, pid_t hungThread,
                                     const Deadline& deadline) {
  std::vector<StackOutcome> outcomes;
  SharedArea area;
  if (!area || tids.empty()) return outcomes;
  // Waiting out an uninterruptible sleep is worth it for one thread only.
  auto isAsleepForGood = [&](pid_t tid) {
    return tid != hungThread && readThreadState(processDir, tid) == 'D';
  };
  if (isAsleepForGood(tids.front())) return {{tids.front(), {}, "in uninterruptible sleep", false}};
  for (pid_t tid : tids) {
    if (area->count == area->threads.size() || isAsleepForGood(tid)) break;
    ThreadCopy& thread = area->threads[area->count++];
    thread.tid = tid;
    thread.wait = tid == hungThread ? kHungThreadStopWait : kThreadStopWait;
  }
  if (!runCopier(processDir, pid, deadline, *area))
    return {{tids.front(), {}, "no process to copy with", true}};
  for (size_t i = 0; i < area->count && area->threads[i].result != CopyResult::pending; i++) {
    outcomes.push_back(outcomeOf(processDir, area->threads[i], *area));
  }
  // Whatever became of the copier, the next call has fewer threads to look at.
  if (outcomes.empty()) outcomes.push_back({tids.front(), {}, "it was not reached", false});
  return outcomes;
}

}  // namespace kelvane
