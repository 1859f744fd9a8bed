#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <vector>

#include "tools/base/descriptor.h"

namespace quorvelctl {

/// Becomes `command`: a program, looked for in PATH, and its arguments. Returns only when it can't, which has
/// been told, with the exit status that shells give then: 127 not found, 126 anything else.
int becomeCommand(const std::vector<std::string>& command);

/// A command's process. It is there before the command is, waiting to be released, so that it can be
/// announced before it has spent anything; when its owner ends first, it ends without running the command.
///
/// Once ended it stays a zombie, with all its counters, until it is reaped.
class LaunchProcess {
 public:
  /// The command gets `signalMask`, and `notifyAddress` as its NOTIFY_SOCKET. When there can be no process,
  /// `pid()` is negative and errno says why.
  LaunchProcess(const std::vector<std::string>& command, const sigset_t& signalMask,
                const std::string& notifyAddress);

  pid_t pid() const { return pid_; }
  void release();

  /// Whether it has ended; then `status` is its exit status, or 128 + n after signal n. Doesn't reap it.
  bool hasEnded(int& status) const;
  void reap();

 private:
  pid_t pid_ = -1;
  Descriptor gate_;
};

}  // namespace quorvelctl
