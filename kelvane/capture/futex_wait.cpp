#include "kelvane/capture/futex_wait.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/other_memory.h"
#include "kelvane/capture/shared_memory.h"
#include "kelvane/capture/wait_time.h"

namespace kelvane {
namespace {

/// glibc keeps a thread's id this far into the thread's record, which begins with a pointer to itself.
#if defined(__x86_64__)
constexpr uint64_t kTidInRecord = 0x2d0;
constexpr uint64_t kSelfInRecord = 0x10;
#elif defined(__aarch64__)
constexpr uint64_t kTidInRecord = 0xd0;
constexpr uint64_t kSelfInRecord = 0;  // it has none
#else
constexpr uint64_t kTidInRecord = 0;
constexpr uint64_t kSelfInRecord = 0;
#endif

std::optional<FutexView> viewOf(const WaitParty& party) {
  const auto& call = party.facts.syscall;
  if (!call || call->number != SYS_futex) return std::nullopt;
  FutexView view{call->arguments[0],
                 static_cast<uint32_t>(call->arguments[1]),
                 static_cast<uint32_t>(call->arguments[2]),
                 {}};
  switch (view.operation & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
    case FUTEX_WAIT_BITSET:
    case FUTEX_LOCK_PI:
    case FUTEX_LOCK_PI2:
      break;
    default:
      return std::nullopt;
  }
  // Less than all of it can be there: the lock may be the last thing on its page.
  return readOther(party.pid, view.address, view.words.data(), sizeof view.words) >= sizeof view.words[0]
             ? std::optional(view)
             : std::nullopt;
}

/// The id in the C library's record of a thread; 0 if that is none.
pid_t idInRecord(pid_t pid, uint64_t record) {
  uint64_t self = 0;
  uint32_t tid = 0;
  const bool isRecord =
      kSelfInRecord == 0 ||
      (readOther(pid, record + kSelfInRecord, &self, sizeof self) == sizeof self && self == record);
  if (kTidInRecord == 0 || !isRecord) return 0;
  return readOther(pid, record + kTidInRecord, &tid, sizeof tid) == sizeof tid ? static_cast<pid_t>(tid) : 0;
}

bool stillWaits(int processDir, const WaitParty& party) {
  const FileText now =
      readFileAt(processDir, taskPath(party.facts.tid, "syscall").c_str(), kMaxProcFileBytes);
  return parseSyscall(now.text).value_or(SystemCall{}).arguments == party.facts.syscall->arguments;
}

/// The thread that owns it: one of the process, or of another that shares the lock's memory.
std::optional<WaitHolder> holderOf(int processDir, const WaitParty& party, const FutexView& view,
                                   const FutexOwner& owner) {
  const pid_t inside = owner.threadStruct != 0 ? idInRecord(party.pid, owner.threadStruct) : owner.tid;
  if (inside <= 0) return std::nullopt;
  if (const pid_t tid = threadCalled(processDir, inside)) {
    // A number that is a thread's id may be a counter's as well.
    const bool isInRecord =
        kSelfInRecord != 0 && idInRecord(party.pid, view.address - kTidInRecord) == inside;
    const bool isSure = owner.kind != WaitKind::threadEnd || isInRecord;
    return WaitHolder{party.pid, tid, isSure ? Sureness::certain : Sureness::guess, owner.evidence};
  }
  const bool isShared = (view.operation & FUTEX_PRIVATE_FLAG) == 0;
  const bool isMutex = owner.kind == WaitKind::lock || owner.kind == WaitKind::readWriteLock;
  auto holder = isShared && isMutex ? threadSharing(processDir, view.address, inside) : std::nullopt;
  if (holder) holder->evidence = owner.evidence;
  return holder;
}

}  // namespace

std::optional<FutexOwner> ownerOfFutex(const FutexView& view) {
  const auto& words = view.words;
  const uint32_t lock = words[0];
  if ((lock & FUTEX_WAITERS) != 0) {
    return FutexOwner{WaitKind::lock, static_cast<pid_t>(lock & FUTEX_TID_MASK), 0, "the lock's owner"};
  }
  // glibc: __lock is 2 while there are waiters; then come __count, __owner, __nusers and __kind, whose bits
  // all lie below 1024.
  constexpr uint32_t kContended = 2;
  constexpr uint32_t kKinds = 1024;
  if (lock == kContended && words[4] < kKinds && words[3] > 0) {
    return FutexOwner{WaitKind::lock, static_cast<pid_t>(words[2]), 0, "the mutex's owner"};
  }
  // A read-write lock: readers wait at __wrphase_futex for the writer, writers at __writers_futex behind it
  // for each other. __pad3 and __pad4 follow, which are 0, and __cur_writer. Both hold 3 while there are
  // waiters.
  constexpr uint32_t kWriting = 3;
  if (lock == kWriting && view.expected == kWriting) {
    if (words[1] <= kWriting && words[2] == 0 && words[3] == 0 && words[4] != 0)
      return FutexOwner{WaitKind::readWriteLock, static_cast<pid_t>(words[4]), 0,
                        "the read-write lock's writer"};
    if (words[1] == 0 && words[2] == 0 && words[3] != 0)
      return FutexOwner{WaitKind::readWriteLock, static_cast<pid_t>(words[3]), 0,
                        "the read-write lock's writer"};
  }
  // A writer waits for readers at __wrphase_futex, and has written itself down as the writer to come.
  if (lock == kContended && view.expected == kContended && words[1] >= 1 && words[1] <= kWriting &&
      words[2] == 0 && words[3] == 0)
    return FutexOwner{WaitKind::readers, 0, 0, ""};
  // The C library has the kernel clear a thread's id in its record and wake who waits there, across processes
  // as far as the kernel can know.
  if (lock > 2 && lock == view.expected && (view.operation & FUTEX_PRIVATE_FLAG) == 0) {
    return FutexOwner{WaitKind::threadEnd, static_cast<pid_t>(lock), 0, "its id is what the futex holds"};
  }
  return std::nullopt;
}

std::optional<FutexOwner> ownerOfStream(const FutexView& view) {
  // _IO_lock_t: lock, count, and the owner's record.
  constexpr uint32_t kContended = 2;
  const uint64_t record = view.words[2] | uint64_t{view.words[3]} << 32;
  if (view.words[0] != kContended || view.words[1] == 0 || record % 16 != 0 || record == 0)
    return std::nullopt;
  return FutexOwner{WaitKind::streamLock, 0, record, "the stream's owner"};
}

std::optional<PartyWait> futexWait(int processDir, const WaitParty& party, ThreadLists& threads) {
  const auto view = viewOf(party);
  if (!view) return std::nullopt;
  PartyWait wait{party.facts.tid, WaitKind::signal, {}, {}};
  for (const auto& owner : {ownerOfFutex(*view), ownerOfStream(*view)}) {
    if (!owner) continue;
    if (owner->kind == WaitKind::readers) {
      wait.kind = WaitKind::readers;
      continue;
    }
    const auto holder = holderOf(processDir, party, *view, *owner);
    if (!holder) continue;
    wait.kind = owner->kind;
    wait.holders = {*holder};
    break;
  }
  const auto isPrivate = [&] {
    return (view->operation & FUTEX_PRIVATE_FLAG) != 0 || !isSharedMemory(processDir, view->address);
  };
  if (wait.holders.empty() && isPrivate()) threads.addCandidates(party, wait);
  wait.timeLeftNs = timeLeftNs(party);
  // What was read counts only if the thread still waits there.
  return stillWaits(processDir, party) ? std::optional(wait) : std::nullopt;
}

}  // namespace kelvane
