#include "kelvane/capture/waited_descriptors.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <string>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/other_memory.h"

namespace kelvane {
namespace {

std::vector<WaitedDescriptor> polled(pid_t pid, const SystemCall& call) {
  std::array<pollfd, kMaxWatchedDescriptors> entries{};
  const size_t count = std::min<uint64_t>(call.arguments[1], entries.size());
  const size_t got =
      readOther(pid, call.arguments[0], entries.data(), count * sizeof(pollfd)) / sizeof(pollfd);
  std::vector<WaitedDescriptor> all;
  for (size_t i = 0; i < got; i++) {
    if (entries[i].fd >= 0) all.push_back({entries[i].fd, (entries[i].events & POLLIN) == 0});
  }
  return all;
}

std::vector<WaitedDescriptor> selected(pid_t pid, const SystemCall& call) {
  std::vector<WaitedDescriptor> all;
  const int count = static_cast<int>(std::min<uint64_t>(call.arguments[0], FD_SETSIZE));
  for (const bool writing : {false, true}) {
    fd_set set{};
    const uint64_t address = call.arguments[writing ? 2 : 1];
    if (address == 0 || readOther(pid, address, &set, sizeof set) != sizeof set) continue;
    for (int fd = 0; fd < count && all.size() < kMaxWatchedDescriptors; fd++) {
      if (FD_ISSET(fd, &set)) all.push_back({fd, writing});
    }
  }
  return all;
}

/// The "tfd:" lines of an epoll descriptor's fdinfo.
std::vector<WaitedDescriptor> ofEpoll(int processDir, int fd) {
  std::vector<WaitedDescriptor> all;
  const std::string path = "fdinfo/" + std::to_string(fd);
  std::istringstream lines(readFileAt(processDir, path.c_str(), kMaxProcFileBytes).text);
  for (std::string line; std::getline(lines, line) && all.size() < kMaxWatchedDescriptors;) {
    int watched = -1;
    unsigned events = 0;
    if (sscanf(line.c_str(), "tfd: %d events: %x", &watched, &events) == 2)
      all.push_back({watched, (events & EPOLLIN) == 0});
  }
  return all;
}

}  // namespace

WaitedDescriptors waitedDescriptors(int processDir, pid_t pid, const SystemCall& call) {
  const int first = static_cast<int>(call.arguments[0]);
  switch (call.number) {
    case SYS_read:
    case SYS_readv:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_recvmmsg:
      return {{{first, false}}, false};
    case SYS_write:
    case SYS_writev:
    case SYS_sendto:
    case SYS_sendmsg:
    case SYS_sendmmsg:
    case SYS_connect:
      return {{{first, true}}, false};
#ifdef SYS_poll
    case SYS_poll:
#endif
    case SYS_ppoll:
      return {polled(pid, call), true};
#ifdef SYS_select
    case SYS_select:
#endif
    case SYS_pselect6:
      return {selected(pid, call), true};
#ifdef SYS_epoll_wait
    case SYS_epoll_wait:
#endif
    case SYS_epoll_pwait:
    case SYS_epoll_pwait2:
      return {ofEpoll(processDir, first), true};
    default:
      return {};
  }
}

}  // namespace kelvane
