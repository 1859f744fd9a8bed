#pragma once

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace quorvelctl {

/// Becomes `command`: a program, looked for in PATH, and its arguments. Returns only when it can't, which has
/// been told, with the exit status that shells give then: 127 not found, 126 anything else.
int becomeCommand(const std::vector<std::string>& command);

/// A command's process. Once ended it stays a zombie, with all its counters, until it is reaped.
class LaunchProcess {
 public:
  /// Calls `announce` with the process's pid before that has spent anything, and in it: it shares this one's
  /// memory, and this one stands still, until it is the command. So nothing is copied for it, and nobody
  /// waits for a word from the other. The command gets `signalMask`, and `notifyAddress` as its
  /// NOTIFY_SOCKET.
  ///
  /// When there can be no process, `pid()` is negative and errno says why.
  LaunchProcess(const std::vector<std::string>& command, const sigset_t& signalMask,
                const std::string& notifyAddress, const std::function<void(pid_t)>& announce);

  pid_t pid() const { return pid_; }

  /// Whether it has ended; then `status` is its exit status, or 128 + n after signal n. Doesn't reap it.
  bool hasEnded(int& status) const;
  void reap();

 private:
  pid_t pid_ = -1;
};

}  // namespace quorvelctl
