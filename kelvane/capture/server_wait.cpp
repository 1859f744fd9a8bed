#include "kelvane/capture/server_wait.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/capture/likely_thread.h"
#include "kelvane/capture/mounts.h"
#include "kelvane/capture/other_memory.h"

namespace kelvane {
namespace {

enum class ServerKind { none, fuse, network };

/// Going by the functions of the kernel that the thread waits in.
ServerKind serverKind(const ThreadFacts& facts) {
  const auto shows = [&](std::string_view part) {
    return facts.waitChannel.find(part) != std::string::npos ||
           std::any_of(facts.kernelStack.begin(), facts.kernelStack.end(),
                       [&](const std::string& frame) { return frame.find(part) != std::string::npos; });
  };
  if (shows("request_wait_answer") || shows("fuse_simple_request") || shows("fuse_readahead"))
    return ServerKind::fuse;
  const bool isRemote = shows("rpc_wait_bit_killable") || shows("nfs_wait") || shows("nfs4_") ||
                        shows("cifs_") || shows("p9_client_rpc");
  return isRemote ? ServerKind::network : ServerKind::none;
}

const Mount* mountOpened(int processDir, const std::vector<Mount>& mounts, int fd) {
  const std::string path = "fdinfo/" + std::to_string(fd);
  return mountOfDescriptor(mounts, readFileAt(processDir, path.c_str(), kMaxProcFileBytes).text);
}

/// What the call works on, by its path if that stands at `argument`, which a folder's descriptor may go
/// before.
const Mount* mountOfText(int processDir, pid_t pid, const std::vector<Mount>& mounts, const SystemCall& call,
                         size_t argument) {
  const std::string path = readOtherText(pid, call.arguments[argument]);
  if (path.starts_with('/')) return mountOfPath(mounts, path);
  const int folder = argument == 0 ? AT_FDCWD : static_cast<int>(call.arguments[0]);
  if (folder != AT_FDCWD) return mountOpened(processDir, mounts, folder);
  return mountOfPath(mounts, descriptorLink(processDir, "cwd") + "/" + path);
}

const Mount* mountOfCall(int processDir, pid_t pid, const std::vector<Mount>& mounts,
                         const SystemCall& call) {
  switch (call.number) {
#ifdef SYS_open
    case SYS_open:
    case SYS_stat:
    case SYS_lstat:
    case SYS_access:
    case SYS_readlink:
    case SYS_mkdir:
    case SYS_unlink:
    case SYS_rename:
#endif
    case SYS_statfs:
    case SYS_truncate:
    case SYS_execve:
    case SYS_chdir:
      return mountOfText(processDir, pid, mounts, call, 0);
    case SYS_openat:
    case SYS_openat2:
    case SYS_newfstatat:
    case SYS_statx:
    case SYS_faccessat:
    case SYS_faccessat2:
    case SYS_readlinkat:
    case SYS_mkdirat:
    case SYS_unlinkat:
      return mountOfText(processDir, pid, mounts, call, 1);
    case SYS_read:
    case SYS_pread64:
    case SYS_readv:
    case SYS_preadv:
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
    case SYS_pwritev:
    case SYS_fstat:
    case SYS_getdents64:
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_ftruncate:
    case SYS_fallocate:
    case SYS_lseek:
    case SYS_ioctl:
      return mountOpened(processDir, mounts, static_cast<int>(call.arguments[0]));
    default:
      return nullptr;
  }
}

/// A connection's number is its mounts' minor device number; older kernels don't tell that of a descriptor.
void addFuseServers(PartyWait& wait, const Mount* mount, DescriptorIndex& index) {
  for (const auto& descriptor : index.withLink("/dev/fuse")) {
    if (index.isOver() || wait.holders.size() == kMaxWaitHolders) break;
    const std::string path =
        "/proc/" + std::to_string(descriptor.pid) + "/fdinfo/" + std::to_string(descriptor.fd);
    const uint64_t connection =
        parseStatusNumber(readFileAt(AT_FDCWD, path.c_str(), kMaxProcFileBytes).text, "fuse_connection");
    const bool isIt = mount && connection == mount->device.minor;
    const bool isKnown = std::any_of(wait.holders.begin(), wait.holders.end(),
                                     [&](const WaitHolder& holder) { return holder.pid == descriptor.pid; });
    if ((connection != 0 && mount && !isIt) || isKnown) continue;
    const auto thread = likelyThread(descriptor.pid, 0, nullptr);
    if (!thread) continue;
    wait.holders.push_back({descriptor.pid, thread->tid, Sureness::likely,
                            isIt ? "it serves the file system's connection" : "it has /dev/fuse open"});
  }
  if (wait.holders.size() < 2) return;
  for (WaitHolder& holder : wait.holders) {
    if (holder.evidence.starts_with("it has")) holder.sureness = Sureness::guess;
  }
}

}  // namespace

std::optional<PartyWait> serverWait(int processDir, const WaitParty& party, DescriptorIndex& index) {
  const ServerKind kind = serverKind(party.facts);
  if (kind == ServerKind::none) return std::nullopt;
  const auto mounts = readMounts(processDir);
  const Mount* mount =
      party.facts.syscall ? mountOfCall(processDir, party.pid, mounts, *party.facts.syscall) : nullptr;
  constexpr std::array<std::string_view, 4> kRemote = {"nfs", "cifs", "smb", "9p"};
  const bool fits = mount && (kind == ServerKind::fuse
                                  ? mount->type.starts_with("fuse")
                                  : std::any_of(kRemote.begin(), kRemote.end(),
                                                [&](auto type) { return mount->type.starts_with(type); }));
  if (!fits) mount = nullptr;
  PartyWait wait{party.facts.tid, WaitKind::server, "a file system's server", {}};
  if (mount) wait.object = "the file system at " + mount->point;
  if (kind == ServerKind::network && mount) wait.object += ", which " + mount->source + " serves";
  if (kind == ServerKind::fuse) addFuseServers(wait, mount, index);
  return wait;
}

}  // namespace kelvane
