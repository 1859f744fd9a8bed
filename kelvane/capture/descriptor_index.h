#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelvane/base/deadline.h"

namespace kelvane {

/// What a descriptor's link in /proc/PID/fd says ("pipe:[4711]"), relative to the process's directory `dirFd`
/// or to AT_FDCWD; empty if there is none.
std::string descriptorLink(int dirFd, const std::string& path);

/// Which processes have what open: all descriptors of all processes, looked through once, when first asked.
///
/// The relatives of a process come first and then the newest, since the search ends after kPeerSearchCpu.
/// Descriptors of other users' processes are not permitted to all.
class DescriptorIndex {
 public:
  struct Descriptor {
    pid_t pid;
    int fd;
  };

  /// `near`: whose relatives come first. Both are the caller's and must outlast this.
  DescriptorIndex(pid_t near, const Deadline& deadline) : near_(near), deadline_(deadline) {}

  const std::vector<Descriptor>& withLink(const std::string& link);
  bool isOver() const { return deadline_.passed(); }
  /// How many processes were not looked through, or not to the end.
  size_t leftOut() const { return leftOut_; }

 private:
  void fill();
  void add(pid_t pid);

  const pid_t near_;
  const Deadline& deadline_;
  bool isFilled_ = false;
  size_t leftOut_ = 0;
  std::unordered_map<std::string, std::vector<Descriptor>> byLink_;
};

/// The processes that this thread has made, as they were made.
std::vector<pid_t> childrenOfThread(pid_t pid, pid_t tid);
/// Those of all threads of the process.
std::vector<pid_t> childrenOf(pid_t pid);
/// 0: it has none that can be seen.
pid_t parentOf(pid_t pid);

}  // namespace kelvane
