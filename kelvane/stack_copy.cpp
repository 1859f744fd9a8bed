#include "kelvane/stack_copy.h"

#include <elf.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <thread>

#include "kelvane/limits.h"
#include "kelvane/proc_files.h"
#include "kelvane/proc_text.h"
#include "kelvane/thread_facts.h"

namespace kelvane {
namespace {

/// Code may keep saved registers just below the stack pointer (the x86-64 ABI's red zone).
constexpr uint64_t kRedZoneBytes = 128;

#if defined(__x86_64__)
std::optional<UnwindRegisters> readRegisters(pid_t tid) {
  user_regs_struct user{};
  iovec area{&user, sizeof user};
  if (ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &area) != 0) return std::nullopt;
  if (area.iov_len != sizeof user) return std::nullopt;  // a 32-bit program
  UnwindRegisters registers;
  registers.dwarf = {user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi, user.rbp, user.rsp, user.r8,
                     user.r9,  user.r10, user.r11, user.r12, user.r13, user.r14, user.r15, user.rip};
  registers.count = 17;
  registers.pc = user.rip;
  registers.sp = user.rsp;
  return registers;
}
#elif defined(__aarch64__)
std::optional<UnwindRegisters> readRegisters(pid_t tid) {
  user_regs_struct user{};
  iovec area{&user, sizeof user};
  if (ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &area) != 0) return std::nullopt;
  if (area.iov_len != sizeof user) return std::nullopt;  // a 32-bit program
  UnwindRegisters registers;
  std::copy(std::begin(user.regs), std::end(user.regs), registers.dwarf.begin());
  registers.dwarf[31] = user.sp;
  registers.count = 32;
  registers.pc = user.pc;
  registers.sp = user.sp;
  return registers;
}
#else
std::optional<UnwindRegisters> readRegisters(pid_t) {
  return std::nullopt;
}
#endif

/// Reads upwards from `start` until `into` is full or memory ends. In pieces of a page, since a piece is
/// transferred whole or not at all.
size_t readMemory(pid_t pid, uint64_t start, std::span<std::byte> into) {
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  std::array<iovec, kMaxStackBytes / 4096 + 1> pieces;
  size_t count = 0;
  size_t planned = 0;
  while (planned < into.size() && count < pieces.size()) {
    uint64_t address = start + planned;
    size_t length = std::min<uint64_t>(page - address % page, into.size() - planned);
    pieces[count++] = {reinterpret_cast<void*>(address), length};
    planned += length;
  }
  iovec local{into.data(), planned};
  ssize_t got = process_vm_readv(pid, &local, 1, pieces.data(), count, 0);
  return static_cast<size_t>(std::max<ssize_t>(got, 0));
}

/// One thread under trace. There is no way to let go of a thread that does not stop: its destructor then
/// leaves it to the end of the tracing thread, which makes the kernel release it.
class TracedThread {
 public:
  TracedThread(pid_t pid, pid_t tid) : pid_(pid), tid_(tid) {
    error_ = ptrace(PTRACE_SEIZE, tid_, nullptr, nullptr) == 0 ? 0 : errno;
  }
  TracedThread(const TracedThread&) = delete;
  TracedThread& operator=(const TracedThread&) = delete;
  ~TracedThread() { release(); }

  /// 0, or the errno value with which tracing was refused.
  int error() const { return error_; }

  enum class Stop { stopped, gone, timedOut };
  Stop stop(std::chrono::milliseconds wait) {
    Deadline deadline(wait);
    if (ptrace(PTRACE_INTERRUPT, tid_, nullptr, nullptr) != 0) return Stop::gone;
    for (int turn = 0;; turn++) {
      siginfo_t info{};
      if (waitid(P_PID, id(), &info, WSTOPPED | WEXITED | WNOWAIT | kWaitFlags) != 0) return Stop::gone;
      if (info.si_pid == tid_ && info.si_code != CLD_TRAPPED) {
        collect();
        return Stop::gone;
      }
      if (info.si_pid == tid_) {
        stopped_ = true;
        // A stop with an event is ours or the group's; any other holds a signal on its way to the thread.
        if (info.si_status >> 8 == 0) pendingSignal_ = info.si_status;
        return Stop::stopped;
      }
      if (deadline.passed()) return Stop::timedOut;
      pause(turn);
    }
  }

  /// Lets the thread run on, with the signal that it was about to receive.
  void release() {
    if (!stopped_) return;
    stopped_ = false;
    ptrace(PTRACE_DETACH, tid_, nullptr, static_cast<long>(pendingSignal_));
  }

 private:
  // Only this thread's tracees: never a child of the process, whoever waits for it.
  static constexpr int kWaitFlags = WNOHANG | __WALL | __WNOTHREAD;

  id_t id() const { return static_cast<id_t>(tid_); }

  /// Takes note of the thread's end, which an exec of its process waits for. The main thread's end is left to
  /// the process's parent.
  void collect() {
    siginfo_t info{};
    if (tid_ != pid_) waitid(P_PID, id(), &info, WEXITED | kWaitFlags);
  }

  static void pause(int turn) {
    constexpr int kYields = 200;  // a thread mostly stops within some ten microseconds
    if (turn < kYields) {
      sched_yield();
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

  pid_t pid_;
  pid_t tid_;
  int error_ = 0;
  bool stopped_ = false;
  int pendingSignal_ = 0;
};

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

StackOutcome copyStack(int processDir, pid_t pid, pid_t tid, std::chrono::milliseconds wait,
                       std::span<std::byte> area) {
  TracedThread thread(pid, tid);
  if (thread.error() != 0) return refusal(processDir, tid, thread.error());
  // The number may have passed to another process's thread by now: that one is let go without a stop.
  if (faccessat(processDir, taskPath(tid, "stat").c_str(), F_OK, 0) != 0) {
    return {tid, {}, "the thread has ended", false};
  }
  uint64_t start = monotonicNs();
  switch (thread.stop(wait)) {
    case TracedThread::Stop::gone:
      return {tid, {}, "the thread has ended", false};
    case TracedThread::Stop::timedOut:
      return {tid, {}, "it did not stop within " + std::to_string(wait.count()) + " ms", false};
    case TracedThread::Stop::stopped:
      break;
  }
  StackCopy copy;
  copy.atNs = monotonicNs();
  auto registers = readRegisters(tid);
  size_t got = 0;
  if (registers) {
    copy.base = registers->sp - kRedZoneBytes;
    got = readMemory(pid, copy.base, area);
  }
  thread.release();
  copy.stoppedUs = static_cast<uint32_t>((monotonicNs() - start) / 1000);
  if (!registers) return {tid, {}, "its registers can't be read (ended, or not a 64-bit program)", false};
  copy.registers = *registers;
  copy.bytes.assign(area.begin(), area.begin() + static_cast<ptrdiff_t>(got));
  return {tid, std::move(copy), {}, false};
}

}  // namespace

std::vector<StackOutcome> copyStacks(int processDir, pid_t pid, std::span<const pid_t> tids, pid_t hungThread,
                                     const Deadline& deadline) {
  std::vector<StackOutcome> outcomes;
  // A thread of its own, because the kernel releases whatever a tracing thread still holds when that ends.
  std::exception_ptr failure;
  std::thread tracer([&] {
    try {
      std::vector<std::byte> area(kMaxStackBytes);
      size_t held = 0;
      for (pid_t tid : tids) {
        bool hung = tid == hungThread;
        // Waiting out an uninterruptible sleep is worth it for one thread only.
        if (!hung && readThreadState(processDir, tid) == 'D') {
          outcomes.push_back({tid, {}, "in uninterruptible sleep", false});
          continue;
        }
        outcomes.push_back(
            copyStack(processDir, pid, tid, hung ? kHungThreadStopWait : kThreadStopWait, area));
        const auto& copy = outcomes.back().copy;
        if (!copy) break;  // it may still be held: let go of it now
        held += copy->bytes.size();
        if (held >= kMaxCopiedBytes || deadline.passed()) break;
      }
    } catch (...) {
      failure = std::current_exception();
    }
  });
  tracer.join();
  if (failure) std::rethrow_exception(failure);
  return outcomes;
}

}  // namespace kelvane
