#include "kelvane/capture/file_lock.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/likely_thread.h"

namespace kelvane {
namespace {

bool isLockCall(const SystemCall& call) {
  const auto command = static_cast<int>(call.arguments[1]);
  return call.number == SYS_flock ||
         (call.number == SYS_fcntl && (command == F_SETLKW || command == F_OFD_SETLKW));
}

std::string fdinfo(const std::string& process, int fd) {
  const std::string path = process + "/fdinfo/" + std::to_string(fd);
  return readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text;
}

/// Who has the file open with a lock on it, where the lock doesn't tell a process.
std::vector<pid_t> processesWithLock(const std::string& link, uint64_t inode, DescriptorIndex& index) {
  std::vector<pid_t> pids;
  for (const auto& descriptor : index.withLink(link)) {
    const std::string info = fdinfo("/proc/" + std::to_string(descriptor.pid), descriptor.fd);
    if (parseStatusNumber(info, "ino") != inode || info.find("lock:\t") == std::string::npos) continue;
    if (std::find(pids.begin(), pids.end(), descriptor.pid) == pids.end()) pids.push_back(descriptor.pid);
  }
  return pids;
}

struct LockedFile {
  uint64_t inode = 0;
  std::string link;
};

/// The file that the call works on.
LockedFile fileOf(int processDir, pid_t pid, const SystemCall& call) {
  const auto fd = static_cast<int>(call.arguments[0]);
  return {parseStatusNumber(fdinfo("/proc/" + std::to_string(pid), fd), "ino"),
          descriptorLink(processDir, "fd/" + std::to_string(fd))};
}

std::vector<FileLock> currentLocks() {
  return parseFileLocks(readFileAt(AT_FDCWD, "/proc/locks", kMaxNetTableBytes).text);
}

void addHolders(PartyWait& wait, const FileLock& lock, const LockedFile& file, pid_t self,
                DescriptorIndex& index) {
  // Who has set a flock(2) may have ended, or closed the file, and left it to whoever has inherited the
  // descriptor.
  std::vector<pid_t> pids = {lock.pid};
  if (lock.isFlock || lock.pid <= 0) pids = processesWithLock(file.link, file.inode, index);
  const bool isThere = std::find(pids.begin(), pids.end(), lock.pid) != pids.end();
  if (isThere) pids = {lock.pid};
  std::erase(pids, self);
  for (const pid_t pid : pids) {
    const bool isKnown = std::any_of(wait.holders.begin(), wait.holders.end(),
                                     [&](const WaitHolder& holder) { return holder.pid == pid; });
    // Who waits for a lock himself is the likeliest to have one.
    const auto thread = isKnown ? std::nullopt : likelyThread(pid, 0, isLockCall);
    if (!thread) continue;
    const bool isSure = isThere && thread->isOnly;
    wait.holders.push_back({pid, thread->tid, isSure ? Sureness::certain : Sureness::likely,
                            isThere ? "/proc/locks" : "it has the file open with a lock on it"});
  }
}

}  // namespace

std::vector<FileLock> parseFileLocks(std::string_view text) {
  std::vector<FileLock> locks;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string line(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    FileLock lock;
    int rest = 0;
    if (sscanf(line.c_str(), "%" SCNu64 ": %n", &lock.number, &rest) != 1 || rest == 0) continue;
    const char* at = line.c_str() + rest;
    lock.waits = strncmp(at, "-> ", 3) == 0;
    if (lock.waits) at += 3;
    lock.isFlock = strncmp(at, "FLOCK ", 6) == 0;
    if (sscanf(at, "%*s %*s %*s %d %*x:%*x:%" SCNu64, &lock.pid, &lock.inode) == 2) locks.push_back(lock);
  }
  return locks;
}

std::optional<PartyWait> fileLockWait(int processDir, const WaitParty& party, DescriptorIndex& index) {
  if (!party.facts.syscall || !isLockCall(*party.facts.syscall)) return std::nullopt;
  const LockedFile file = fileOf(processDir, party.pid, *party.facts.syscall);
  PartyWait wait{party.facts.tid, WaitKind::fileLock, "the file " + file.link, {}};
  const auto locks = currentLocks();
  const auto blocked = std::find_if(locks.begin(), locks.end(), [&](const FileLock& lock) {
    return lock.waits && lock.inode == file.inode && (lock.pid == party.pid || lock.pid == -1);
  });
  if (blocked == locks.end()) return wait;
  for (const FileLock& lock : locks) {
    if (!lock.waits && lock.number == blocked->number) addHolders(wait, lock, file, party.pid, index);
  }
  return wait;
}

std::optional<PartyWait> fileLockTry(int processDir, const WaitParty& party, DescriptorIndex& index) {
  const SystemCall call = party.facts.syscall.value_or(SystemCall{});
  const bool isFlock = call.number == SYS_flock;
  if (!isFlock && call.number != SYS_fcntl) return std::nullopt;
  const LockedFile file = fileOf(processDir, party.pid, call);
  PartyWait wait{party.facts.tid, WaitKind::fileLock, "the file " + file.link, {}};
  for (const FileLock& lock : currentLocks()) {
    if (!lock.waits && lock.inode == file.inode && lock.isFlock == isFlock)
      addHolders(wait, lock, file, party.pid, index);
  }
  // It may be any of several locks that is in the way.
  for (WaitHolder& holder : wait.holders)
    holder.sureness = wait.holders.size() == 1 ? Sureness::likely : Sureness::guess;
  return wait;
}

}  // namespace kelvane
