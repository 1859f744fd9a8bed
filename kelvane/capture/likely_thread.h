#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "kelvane/base/proc_text.h"
#include "kelvane/waits/wait_graph.h"

namespace kelvane {

/// The thread of a process that others wait for, of whom only the process is known.
struct LikelyThread {
  pid_t tid = 0;
  bool isOnly = false;    // the process has no other
  bool isChosen = false;  // there were others to choose from
  bool isAtIt = false;    // it is in a call that `isAtIt` said yes to
};

/// The one in a call that `isAtIt` says yes to, else one that is awake, else one that doesn't just wait for
/// events; never `except`. Nothing if the process has gone.
std::optional<LikelyThread> likelyThread(pid_t pid, pid_t except,
                                         const std::function<bool(const SystemCall&)>& isAtIt);

/// The threads of processes, of which each is listed once: where all threads of a process wait for signals,
/// it is asked for each of them.
class ThreadLists {
 public:
  /// Makes candidates of the other threads of the party's process, those first that are awake or stand still
  /// in the kernel; not of all of a large process.
  void addCandidates(const WaitParty& party, PartyWait& wait);

 private:
  std::map<pid_t, std::vector<pid_t>> byProcess_;
};

}  // namespace kelvane
