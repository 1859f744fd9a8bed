#include "kelvane/capture/peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <array>
#include <charconv>
#include <string_view>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/unix_socket.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

/// A descriptor that a call waits at, and in which direction.
struct WaitedDescriptor {
  int fd = -1;
  bool writing = false;
};

/// The one that poll(2) was given, if it was just one.
std::optional<WaitedDescriptor> onlyPolled(pid_t pid, const SystemCall& call) {
  pollfd polled{};
  iovec local{&polled, sizeof polled};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
  iovec remote{reinterpret_cast<void*>(call.arguments[0]), sizeof polled};
  if (call.arguments[1] != 1 || process_vm_readv(pid, &local, 1, &remote, 1, 0) != ssize_t{sizeof polled}) {
    return std::nullopt;
  }
  return WaitedDescriptor{polled.fd, (polled.events & POLLIN) == 0};
}

std::optional<WaitedDescriptor> waitedDescriptor(pid_t pid, const SystemCall& call) {
  int first = static_cast<int>(call.arguments[0]);
  switch (call.number) {
    case SYS_read:
    case SYS_readv:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_recvmmsg:
      return WaitedDescriptor{first, false};
    case SYS_write:
    case SYS_writev:
    case SYS_sendto:
    case SYS_sendmsg:
    case SYS_sendmmsg:
      return WaitedDescriptor{first, true};
#ifdef SYS_poll
    case SYS_poll:
#endif
    case SYS_ppoll:
      return onlyPolled(pid, call);
    default:
      return std::nullopt;
  }
}

/// What a descriptor's link in /proc/PID/fd says, e.g. "pipe:[4711]".
std::string linkText(int dirFd, const std::string& path) {
  std::array<char, 64> text;  // longer ones are paths of files
  ssize_t length = readlinkat(dirFd, path.c_str(), text.data(), text.size());
  return length < 0 ? std::string() : std::string(text.data(), static_cast<size_t>(length));
}

/// The N of "pipe:[N]"; 0 if `link` does not begin so.
uint32_t inodeOf(std::string_view link, std::string_view kind) {
  uint32_t inode = 0;
  if (link.starts_with(kind)) std::from_chars(link.data() + kind.size(), link.data() + link.size(), inode);
  return inode;
}

/// Whether the process has a descriptor with `link`, open for what `wanted` (a mode bit of lstat) says.
bool holds(pid_t pid, const std::string& link, mode_t wanted) {
  std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  UniqueFd fds(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fds) return false;
  std::vector<int> numbers = listNumbersAt(fds.get(), ".", kMaxDescriptorsSearched);
  numbers.push_back(0);
  for (int number : numbers) {
    std::string name = std::to_string(number);
    struct stat status {};
    if (linkText(fds.get(), name) == link &&
        fstatat(fds.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && (status.st_mode & wanted) != 0)
      return true;
  }
  return false;
}

std::optional<Peer> findHolder(pid_t self, const std::string& link, mode_t wanted, const char* through,
                               const Deadline& deadline) {
  Deadline enough(kPeerSearchBudget);
  std::vector<pid_t> pids = listNumbersAt(AT_FDCWD, "/proc", kMaxProcessesScanned);
  std::erase(pids, self);
  pids.push_back(self);
  for (pid_t pid : pids) {
    if (deadline.passed() || enough.passed()) break;
    if (!holds(pid, link, wanted)) continue;
    std::string comm = "/proc/" + std::to_string(pid) + "/comm";
    std::string name = readFileAt(AT_FDCWD, comm.c_str(), kMaxProcFileBytes).text;
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return Peer{pid, std::move(name), through};
  }
  return std::nullopt;
}

}  // namespace

std::optional<Peer> findPeer(int processDir, pid_t pid, const ThreadFacts& facts, const Deadline& deadline,
                             std::vector<Omission>& omissions) {
  auto waited = facts.syscall ? waitedDescriptor(pid, *facts.syscall) : std::nullopt;
  if (!waited || waited->fd < 0) return std::nullopt;
  std::string link = linkText(processDir, "fd/" + std::to_string(waited->fd));
  if (inodeOf(link, "pipe:[") != 0) {
    return findHolder(pid, link, waited->writing ? S_IRUSR : S_IWUSR, "pipe", deadline);
  }
  uint32_t peerInode = 0;
  if (const int error = unixSocketPeer(processDir, inodeOf(link, "socket:["), peerInode)) {
    omissions.push_back({"other end of the socket", "sock_diag: " + errorText(error)});
  }
  if (peerInode == 0) return std::nullopt;
  return findHolder(pid, "socket:[" + std::to_string(peerInode) + "]", S_IRUSR, "Unix socket", deadline);
}

}  // namespace kelvane
