#include "kelvane/capture/likely_thread.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

bool waitsForEvents(int64_t call) {
  switch (call) {
#ifdef SYS_poll
    case SYS_poll:
    case SYS_select:
    case SYS_epoll_wait:
#endif
    case SYS_ppoll:
    case SYS_pselect6:
    case SYS_epoll_pwait:
    case SYS_epoll_pwait2:
    case SYS_accept:
    case SYS_accept4:
      return true;
    default:
      return false;
  }
}

/// The lower, the likelier that others wait for a thread that does this.
int rankOf(char state, const std::optional<SystemCall>& call) {
  switch (state) {
    case 'R':
      return 1;
    case 'D':
      return 2;
    case 'T':
    case 't':
      return 3;
    case 'Z':
    case 'X':
      return 6;
    default:
      return call && waitsForEvents(call->number) ? 5 : 4;
  }
}

/// By their states alone.
std::vector<pid_t> likeliestFirst(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid);
  const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return {};
  std::vector<std::pair<int, pid_t>> ranked;
  for (const pid_t tid : listNumbersAt(dir.get(), "task", kMaxThreadsWithStack))
    ranked.emplace_back(rankOf(readThreadState(dir.get(), tid), {}), tid);
  std::sort(ranked.begin(), ranked.end());
  std::vector<pid_t> tids;
  tids.reserve(ranked.size());
  for (const auto& [rank, tid] : ranked) tids.push_back(tid);
  return tids;
}

}  // namespace

std::optional<LikelyThread> likelyThread(pid_t pid, pid_t except,
                                         const std::function<bool(const SystemCall&)>& isAtIt) {
  const std::string path = "/proc/" + std::to_string(pid);
  const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return std::nullopt;
  std::vector<pid_t> tids = listNumbersAt(dir.get(), "task", kMaxThreadsWithStack);
  const bool isOnly = tids.size() == 1;
  std::erase(tids, except);
  LikelyThread best;
  int bestRank = INT_MAX;
  for (const pid_t tid : tids) {
    const auto call =
        parseSyscall(readFileAt(dir.get(), taskPath(tid, "syscall").c_str(), kMaxProcFileBytes).text);
    const bool isHere = call && isAtIt && isAtIt(*call);
    const int rank = isHere ? 0 : rankOf(readThreadState(dir.get(), tid), call);
    if (rank >= bestRank) continue;
    bestRank = rank;
    best = {tid, isOnly, tids.size() > 1, isHere};
  }
  return best.tid == 0 ? std::nullopt : std::optional(best);
}

void ThreadLists::addCandidates(const WaitParty& party, PartyWait& wait) {
  const auto [known, isNew] = byProcess_.try_emplace(party.pid);
  if (isNew) known->second = likeliestFirst(party.pid);
  for (const pid_t tid : known->second) {
    if (tid == party.facts.tid) continue;
    wait.hasMoreCandidates = wait.candidates.size() == kMaxWaitCandidates;
    if (wait.hasMoreCandidates) break;
    wait.candidates.push_back({party.pid, tid, Sureness::guess, {}});
  }
}

}  // namespace kelvane
