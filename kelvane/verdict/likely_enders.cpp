#include "kelvane/verdict/likely_enders.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/timeline/thread_timeline.h"

namespace kelvane {
namespace {

/// What a busy thread had of a CPU at least, while it was watched, without going to sleep in between: longer
/// than it takes to see to a job.
constexpr uint64_t kBusyNs = 2'000'000;

/// Of the candidates, and of the hung process's threads if they are of that.
std::optional<WaitHolder> endedBefore(const Evidence& evidence, const PartyWait& wait) {
  const ProcessCapture& process = evidence.process;
  const pid_t pid = wait.candidates.front().pid;
  const auto isCandidate = [&](pid_t tid) {
    const auto has = [&](const WaitHolder& one) { return one.tid == tid; };
    const auto isIt = [&](const ThreadCapture& one) { return one.facts.tid == tid; };
    return std::any_of(wait.candidates.begin(), wait.candidates.end(), has) ||
           (pid == process.pid && std::any_of(process.threads.begin(), process.threads.end(), isIt));
  };
  std::map<pid_t, size_t> ended;
  size_t all = 0;
  for (const StateSpan& span : threadTimeline(evidence.recording, wait.tid, 'S')) {
    const bool isSleep = span.state == ThreadState::sleeping && span.end == SleepEnd::thread;
    if (!isSleep || span.wokenBy == wait.tid || !isCandidate(span.wokenBy)) continue;
    ended[span.wokenBy]++;
    all++;
  }
  const auto most =
      std::max_element(ended.begin(), ended.end(), [](auto& a, auto& b) { return a.second < b.second; });
  if (most == ended.end() || most->second * 2 <= all) return std::nullopt;
  return WaitHolder{pid, most->first, Sureness::guess,
                    "of its sleeps that a thread of the process has ended before, it ended " +
                        std::to_string(most->second) + " of " + std::to_string(all)};
}

/// Whether it computes, or is held up by something that is no mere waiting for work.
bool isBusy(const WaitGraph& graph, pid_t tid) {
  const WaitParty* party = partyOf(graph, tid);
  if (!party) return false;
  const PartyWatch* watch = watchOf(graph, tid);
  const PartyWait* wait = waitOf(graph, tid);
  switch (party->facts.state) {
    case 'R':
      return watch && !watch->moved && watch->ranNs >= kBusyNs;
    case 'D':
    case 'T':
    case 't':
      return true;
    default:
      break;
  }
  if (!wait || wait->holders.empty() || (watch && watch->moved)) return false;
  switch (wait->kind) {
    case WaitKind::lock:
    case WaitKind::readWriteLock:
    case WaitKind::streamLock:
    case WaitKind::child:
    case WaitKind::fileLock:
    case WaitKind::server:
      return true;
    default:
      return false;
  }
}

std::optional<WaitHolder> standsOut(const WaitGraph& graph, const PartyWait& wait) {
  if (wait.candidates.size() == 1) {
    WaitHolder only = wait.candidates.front();
    only.evidence = "the process has no other thread";
    return only;
  }
  // At a pipe the idle wait for work, too. Elsewhere whoever was not looked at may be just as busy.
  if (wait.kind == WaitKind::peer || wait.hasMoreCandidates) return std::nullopt;
  std::optional<WaitHolder> found;
  for (const WaitHolder& candidate : wait.candidates) {
    const WaitParty* party = partyOf(graph, candidate.tid);
    if (!party || (party->facts.state == 'R' && !watchOf(graph, candidate.tid))) return std::nullopt;
    if (!isBusy(graph, candidate.tid)) continue;
    if (found) return std::nullopt;
    found = candidate;
    found->evidence = "of the threads of the process it alone is busy";
  }
  return found;
}

}  // namespace

WaitGraph withLikelyEnders(const Evidence& evidence) {
  const ProcessCapture& process = evidence.process;
  WaitGraph graph = process.waits;
  for (PartyWait& wait : graph.waits) {
    if (!wait.holders.empty() || wait.candidates.empty()) continue;
    auto holder = endedBefore(evidence, wait);
    if (!holder) holder = standsOut(process.waits, wait);
    if (!holder) continue;
    wait.holders = {*holder};
    if (partyOf(graph, holder->tid)) continue;
    for (const ThreadCapture& thread : process.threads) {
      if (thread.facts.tid == holder->tid) graph.parties.push_back({process.pid, process.comm, thread.facts});
    }
  }
  return graph;
}

}  // namespace kelvane
