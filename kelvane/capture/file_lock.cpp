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

std::string fdinfo(int processDir, int fd) {
  const std::string path = "fdinfo/" + std::to_string(fd);
  return readFileAt(processDir, path.c_str(), kMaxProcFileBytes).text;
}

bool isOnSameFile(const FileLock& one, const FileLock& other) {
  return one.inode == other.inode && one.device == other.device;
}

/// Who has the file of `lock`, which the process itself calls `link`, open with a lock on it, where that one
/// doesn't tell a process.
std::vector<pid_t> processesWithLock(const std::string& link, const FileLock& lock, DescriptorIndex& index) {
  std::vector<pid_t> pids;
  for (const auto& descriptor : index.withLink(link)) {
    if (std::find(pids.begin(), pids.end(), descriptor.pid) != pids.end()) continue;
    const std::string path =
        "/proc/" + std::to_string(descriptor.pid) + "/fdinfo/" + std::to_string(descriptor.fd);
    const auto own = parseFileLocks(readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text);
    if (std::any_of(own.begin(), own.end(), [&](const FileLock& one) { return isOnSameFile(one, lock); }))
      pids.push_back(descriptor.pid);
  }
  return pids;
}

struct LockedFile {
  uint64_t inode = 0;
  std::optional<DeviceNumber> device;  // nothing: it was opened through a mount that its process doesn't see
  std::string link;

  bool hasLock(const FileLock& lock) const {
    return lock.inode == inode && (!device || lock.device == *device);
  }
};

/// The file that the call works on.
LockedFile fileOf(int processDir, const SystemCall& call) {
  const auto fd = static_cast<int>(call.arguments[0]);
  const std::string info = fdinfo(processDir, fd);
  const std::vector<Mount> mounts = readMounts(processDir);
  const Mount* mount = mountOfDescriptor(mounts, info);
  return {parseStatusNumber(info, "ino"), mount ? std::optional(mount->device) : std::nullopt,
          descriptorLink(processDir, "fd/" + std::to_string(fd))};
}

std::vector<FileLock> currentLocks() {
  return parseFileLocks(readFileAt(AT_FDCWD, "/proc/locks", kMaxNetTableBytes).text);
}

void addHolders(PartyWait& wait, const FileLock& lock, const std::string& link, pid_t self,
                DescriptorIndex& index) {
  // Who has set a flock(2) may have ended, or closed the file, and left it to whoever has inherited the
  // descriptor.
  std::vector<pid_t> pids = {lock.pid};
  if (lock.isFlock || lock.pid <= 0) pids = processesWithLock(link, lock, index);
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
  constexpr std::string_view kInFdinfo = "lock:\t";
  while (!text.empty()) {
    if (text.starts_with(kInFdinfo)) text.remove_prefix(kInFdinfo.size());
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
    if (sscanf(at, "%*s %*s %*s %d %x:%x:%" SCNu64, &lock.pid, &lock.device.major, &lock.device.minor,
               &lock.inode) == 4)
      locks.push_back(lock);
  }
  return locks;
}

std::optional<PartyWait> fileLockWait(int processDir, const WaitParty& party, DescriptorIndex& index) {
  if (!party.facts.syscall || !isLockCall(*party.facts.syscall)) return std::nullopt;
  const LockedFile file = fileOf(processDir, *party.facts.syscall);
  PartyWait wait{party.facts.tid, WaitKind::fileLock, "the file " + file.link, {}};
  const auto locks = currentLocks();
  const auto blocked = std::find_if(locks.begin(), locks.end(), [&](const FileLock& lock) {
    return lock.waits && file.hasLock(lock) && (lock.pid == party.pid || lock.pid == -1);
  });
  if (blocked == locks.end()) return wait;
  for (const FileLock& lock : locks) {
    if (!lock.waits && lock.number == blocked->number) addHolders(wait, lock, file.link, party.pid, index);
  }
  // Without its file system it may be the wait for a file that only has the same number.
  for (WaitHolder& holder : wait.holders) {
    if (!file.device) holder.sureness = Sureness::guess;
  }
  return wait;
}

std::optional<PartyWait> fileLockTry(int processDir, const WaitParty& party, DescriptorIndex& index) {
  const SystemCall call = party.facts.syscall.value_or(SystemCall{});
  const bool isFlock = call.number == SYS_flock;
  if (!isFlock && call.number != SYS_fcntl) return std::nullopt;
  const LockedFile file = fileOf(processDir, call);
  PartyWait wait{party.facts.tid, WaitKind::fileLock, "the file " + file.link, {}};
  for (const FileLock& lock : currentLocks()) {
    if (!lock.waits && file.hasLock(lock) && lock.isFlock == isFlock)
      addHolders(wait, lock, file.link, party.pid, index);
  }
  // It may be any of several locks that is in the way, or one of a file that only has the same number.
  const bool isLikely = wait.holders.size() == 1 && file.device;
  for (WaitHolder& holder : wait.holders) holder.sureness = isLikely ? Sureness::likely : Sureness::guess;
  return wait;
}

}  // namespace kelvane
