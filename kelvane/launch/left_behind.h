#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

#include "kelvane/launch/capture_program.h"

namespace kelvane {

/// The captures of this process that had not gone when their report was written: mostly they are about to,
/// but the kernel may hold one up for as long as a server of files likes, and no signal ends it then.
///
/// Each costs this process one descriptor, two if the program itself is held up. Whoever makes processes that
/// freeze what looks at them spends his own user's share. From any thread; captures under way don't count.
class LeftBehind {
 public:
  /// Why the process must not be looked at now; empty: it may. Forgets those that have gone. `user` becomes
  /// whose it is, which can't be asked any more when the capture is over.
  std::string whyNotLook(pid_t pid, uid_t& user);
  /// Keeps what the capture of that process leaves, if it hasn't gone.
  void add(pid_t pid, uid_t user, CaptureProgram& capture);

 private:
  struct Capture {
    pid_t pid;
    uid_t user;
    UniqueFd life;
    UniqueFd process;  // until it is collected
  };
  static bool hasGone(Capture& capture);

  std::mutex mutex_;
  std::vector<Capture> captures_;
};

}  // namespace kelvane
