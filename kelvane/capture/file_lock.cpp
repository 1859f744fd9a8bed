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
  const auto fd = static_cast<int>(party.facts.syscall->arguments[0]);
  const uint64_t inode = parseStatusNumber(fdinfo("/proc/" + std::to_string(party.pid), fd), "ino");
  const std::string link = descriptorLink(processDir, "fd/" + std::to_string(fd));
  PartyWait wait{party.facts.tid, WaitKind::fileLock, "the file " + link, {}};
  const auto locks = parseFileLocks(readFileAt(AT_FDCWD, "/proc/locks", kMaxNetTableBytes).text);
  const auto blocked = std::find_if(locks.begin(), locks.end(), [&](const FileLock& lock) {
    return lock.waits && lock.inode == inode && (lock.pid == party.pid || lock.pid == -1);
  });
  if (blocked == locks.end()) return wait;
  for (const FileLock& lock : locks) {
    if (lock.waits || lock.number != blocked->number) continue;
    // Who has set a flock(2) may have ended, or closed the file, and left it to whoever has inherited the
    // descriptor.
    std::vector<pid_t> pids = {lock.pid};
    if (lock.isFlock || lock.pid <= 0) pids = processesWithLock(link, inode, index);
    const bool isThere = std::find(pids.begin(), pids.end(), lock.pid) != pids.end();
    if (isThere) pids = {lock.pid};
    std::erase(pids, party.pid);
    for (const pid_t pid : pids) {
      const auto thread = likelyThread(pid, 0, nullptr);
      if (!thread) continue;
      const bool isSure = isThere && thread->isOnly;
      wait.holders.push_back({pid, thread->tid, isSure ? Sureness::certain : Sureness::likely,
                              isThere ? "/proc/locks" : "it has the file open with a lock on it"});
    }
  }
  return wait;
}

}  // namespace kelvane
