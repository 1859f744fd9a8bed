#include "kelvane/threads/thread_copier.h"

#include <elf.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace kelvane {
namespace {

/// Code may keep saved registers just below the stack pointer (the x86-64 ABI's red zone).
constexpr uint64_t kRedZoneBytes = 128;

#if defined(__x86_64__)
void assign(const user_regs_struct& user, UnwindRegisters& registers) {
  registers.dwarf = {user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi, user.rbp, user.rsp, user.r8,
                     user.r9,  user.r10, user.r11, user.r12, user.r13, user.r14, user.r15, user.rip};
  registers.count = 17;
  registers.pc = user.rip;
  registers.sp = user.rsp;
}
void readSignatureBits(pid_t, UnwindRegisters&) {}
#elif defined(__aarch64__)
void assign(const user_regs_struct& user, UnwindRegisters& registers) {
  std::copy(std::begin(user.regs), std::end(user.regs), registers.dwarf.begin());
  registers.dwarf[31] = user.sp;
  registers.count = 32;
  registers.pc = user.pc;
  registers.sp = user.sp;
}
void readSignatureBits(pid_t tid, UnwindRegisters& registers) {
  struct {
    uint64_t data, code;
  } masks{};
  iovec area{&masks, sizeof masks};
  // Refused where the machine doesn't sign.
  if (ptrace(PTRACE_GETREGSET, tid, NT_ARM_PAC_MASK, &area) == 0) registers.signatureBits = masks.code;
}
#else
void assign(const user_regs_struct&, UnwindRegisters&) {}  // how DWARF numbers them is not known here
void readSignatureBits(pid_t, UnwindRegisters&) {}
#endif

bool readRegisters(pid_t tid, UnwindRegisters& registers) {
  user_regs_struct user{};
  iovec area{&user, sizeof user};
  if (ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &area) != 0) return false;
  if (area.iov_len != sizeof user) return false;  // a 32-bit program
  assign(user, registers);
  readSignatureBits(tid, registers);
  return registers.count != 0;
}

/// Reads upwards from `start` until `into` is full or memory ends. In pieces of a page, since a piece is
/// transferred whole or not at all.
size_t readMemory(pid_t pid, uint64_t start, std::span<std::byte> into) {
  constexpr uint64_t kPiece = 4096;  // no page is smaller
  std::array<iovec, kMaxStackBytes / kPiece + 1> pieces;
  size_t count = 0;
  for (size_t planned = 0; planned < into.size() && count < pieces.size();) {
    uint64_t address = start + planned;
    size_t length = std::min<uint64_t>(kPiece - address % kPiece, into.size() - planned);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
    pieces[count++] = {reinterpret_cast<void*>(address), length};
    planned += length;
  }
  iovec local{into.data(), into.size()};
  ssize_t got = process_vm_readv(pid, &local, 1, pieces.data(), count, 0);
  return static_cast<size_t>(std::max<ssize_t>(got, 0));
}

void pauseBetweenLooks(int look) {
  constexpr int kYields = 200;  // a thread mostly stops within some ten microseconds
  constexpr timespec kNap{0, 200'000};
  if (look < kYields) {
    sched_yield();
  } else {
    nanosleep(&kNap, nullptr);
  }
}

/// Waits until the traced thread has stopped. `signal` becomes the one that it was about to receive, or 0.
CopyResult awaitStop(pid_t pid, pid_t tid, std::chrono::milliseconds wait, int& signal) {
  Deadline deadline(wait);
  if (ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0) return CopyResult::ended;
  for (int look = 0;; look++) {
    siginfo_t info{};
    auto id = static_cast<id_t>(tid);
    // A stop is reported whatever kind of change is asked for, so one call looks for all of them.
    if (waitid(P_PID, id, &info, WSTOPPED | WEXITED | WNOHANG | WNOWAIT | __WALL) != 0)
      return CopyResult::ended;
    if (info.si_pid == tid && info.si_code == CLD_TRAPPED) {
      // A stop with an event is ours or the group's.
      signal = info.si_status >> 8 == 0 ? info.si_status : 0;
      return CopyResult::copied;
    }
    if (info.si_pid == tid) {
      // An exec waits for the ends of its process's other threads to be collected; the main thread's end is
      // its parent's.
      if (tid != pid) waitid(P_PID, id, &info, WEXITED | WNOHANG | __WALL);
      return CopyResult::ended;
    }
    if (deadline.passed()) return CopyResult::didNotStop;
    pauseBetweenLooks(look);
  }
}

bool belongsTo(int processDir, pid_t tid) {
  std::array<char, 32> path;
  snprintf(path.data(), path.size(), "task/%d", tid);
  return faccessat(processDir, path.data(), F_OK, 0) == 0;
}

CopyResult copyThread(int processDir, pid_t pid, ThreadCopy& thread, std::span<std::byte> room) {
  if (ptrace(PTRACE_SEIZE, thread.tid, nullptr, nullptr) != 0) {
    thread.error = errno;
    return CopyResult::refused;
  }
  // The number may have passed to another process's thread by now: that one is never stopped.
  if (!belongsTo(processDir, thread.tid)) return CopyResult::ended;
  uint64_t start = monotonicNs();
  int signal = 0;
  CopyResult stop = awaitStop(pid, thread.tid, thread.wait, signal);
  if (stop != CopyResult::copied) return stop;
  thread.atNs = monotonicNs();
  bool known = readRegisters(thread.tid, thread.registers);
  if (known) {
    thread.stackBase = thread.registers.sp - kRedZoneBytes;
    thread.length = readMemory(pid, thread.stackBase, room);
  }
  ptrace(PTRACE_DETACH, thread.tid, nullptr, static_cast<long>(signal));
  thread.stoppedNs = monotonicNs() - start;
  return known ? CopyResult::copied : CopyResult::noRegisters;
}

}  // namespace

void copyThreads(int processDir, pid_t pid, const Deadline& deadline, CopyArea& area) {
  size_t used = 0;
  for (size_t i = 0; i < area.count; i++) {
    ThreadCopy& thread = area.threads[i];
    if (area.bytes.size() - used < kMaxStackBytes || (i > 0 && deadline.passed())) return;
    area.busySinceNs = monotonicNs();
    thread.result = CopyResult::begun;
    thread.offset = used;
    thread.result = copyThread(processDir, pid, thread, std::span(area.bytes).subspan(used, kMaxStackBytes));
    used += thread.length;
    if (thread.result != CopyResult::copied) return;
  }
}

}  // namespace kelvane
