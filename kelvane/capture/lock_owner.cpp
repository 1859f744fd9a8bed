#include "kelvane/capture/lock_owner.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"

namespace kelvane {
namespace {

bool waitsForFutex(const SystemCall& call) {
  if (call.number != SYS_futex) return false;
  switch (call.arguments[1] & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
    case FUTEX_WAIT_BITSET:
    case FUTEX_LOCK_PI:
    case FUTEX_LOCK_PI2:
      return true;
    default:
      return false;
  }
}

bool readWords(pid_t pid, uint64_t address, MutexWords& words) {
  iovec local{words.data(), sizeof words};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
  iovec remote{reinterpret_cast<void*>(address), sizeof words};
  return process_vm_readv(pid, &local, 1, &remote, 1, 0) == ssize_t{sizeof words};
}

}  // namespace

pid_t ownerInMutex(const MutexWords& words) {
  uint32_t lock = words[0];
  if ((lock & FUTEX_WAITERS) != 0) return static_cast<pid_t>(lock & FUTEX_TID_MASK);
  // glibc: __lock is 2 while there are waiters; then come __count, __owner, __nusers and __kind, whose bits
  // all lie below 1024.
  constexpr uint32_t kContended = 2;
  constexpr uint32_t kKinds = 1024;
  bool isMutex = lock == kContended && words[4] < kKinds && words[3] > 0;
  return isMutex ? static_cast<pid_t>(words[2]) : 0;
}

pid_t lockOwner(int processDir, pid_t pid, const ThreadFacts& facts) {
  MutexWords words{};
  if (!facts.syscall || !waitsForFutex(*facts.syscall)) return 0;
  if (!readWords(pid, facts.syscall->arguments[0], words)) return 0;
  const pid_t owner = threadCalled(processDir, ownerInMutex(words));
  if (owner == 0) return 0;
  // What was read counts only if the thread still waits there.
  FileText now = readFileAt(processDir, taskPath(facts.tid, "syscall").c_str(), kMaxProcFileBytes);
  return parseSyscall(now.text).value_or(SystemCall{}).arguments == facts.syscall->arguments ? owner : 0;
}

}  // namespace kelvane
