#include "kelvane/verdict/launch_verdict.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "kelvane/base/limits.h"
#include "kelvane/timeline/critical_path.h"
#include "kelvane/timeline/disk_requests.h"
#include "kelvane/timeline/disk_waits.h"
#include "kelvane/timeline/launch_stages.h"
#include "kelvane/timeline/launched_processes.h"
#include "kelvane/verdict/chain_sentence.h"
#include "kelvane/verdict/chain_verdict.h"
#include "kelvane/verdict/duration_text.h"
#include "kelvane/verdict/judge.h"
#include "kelvane/verdict/launched_life.h"
#include "kelvane/verdict/sampled_shares.h"
#include "kelvane/verdict/shares.h"

namespace kelvane {
namespace {

constexpr size_t kMaxMembersListed = 32;
constexpr size_t kMaxPathListed = 10;
/// Sleeps in the kernel that are looked through for the disk, of a stage, those of the longest sleepers
/// first: a launch may have any number, and a disk any number of requests.
constexpr size_t kMaxKernelSleeps = 5'000;

/// From this share on, the longest stage is the launch.
constexpr double kWholeLaunch = 0.95;

/// A child that ends wakes the parent that waits for that, and is gone right after; what else it wakes for,
/// it lives on longer.
constexpr uint64_t kEndReachNs = 1'000'000;

bool isHalf(uint64_t partNs, uint64_t wholeNs) {
  return makesUp(partNs, kHalf, wholeNs);
}

uint64_t sumNs(const std::vector<StateSpan>& spans) {
  uint64_t ns = 0;
  for (const StateSpan& span : spans) ns += span.toNs - span.fromNs;
  return ns;
}

/// A stage's critical path.
struct StagePath {
  CriticalPath path;
  std::map<int32_t, DiskWaits> diskWaits;  // of threads on it whose sleeps in the kernel were mostly that

  int32_t lastOf(const CriticalPath::Piece& piece) const { return path.routes[piece.route].threads.back(); }
};

/// How pieces of a path are told apart. Many short programs of the launch are one.
struct Doing {
  bool isLaunched = false;
  std::string name;  // of the threads
  std::string what;

  auto operator<=>(const Doing&) const = default;
};

class LaunchJudge {
 public:
  explicit LaunchJudge(const LaunchEvidence& evidence)
      : evidence_(evidence),
        timelines_(threadTimelines(evidence.recording)),
        requests_(diskRequests(evidence.recording)),
        launched_(launchedProcesses(evidence.recording, evidence.look.pid, evidence.look.threads,
                                    evidence.look.descendants, evidence.fromNs, evidence.toNs)) {}

  std::pair<Launch, Verdict> judge() {
    launch_.look = evidence_.look;
    launch_.name = nameOf(evidence_.look.pid);
    first_ = capture(evidence_.look.pid);
    launch_.isRecorded = sharedNs(evidence_.fromNs, evidence_.toNs, evidence_.recording.coveredFromNs,
                                  evidence_.recording.toNs) > 0;
    if (launch_.isRecorded) {
      stages_ = launchStages(evidence_.recording, launched_, evidence_.fromNs, evidence_.toNs);
      for (const LaunchStage& stage : stages_) paths_.push_back(pathOf(stage));
      addMembers();
    } else {
      stages_ = {{evidence_.look.pid, evidence_.fromNs, evidence_.toNs}};
      paths_.resize(1);
    }
    launch_.path = namedShares(evidence_.fromNs, evidence_.toNs, kMaxPathListed);
    addPhases();
    Verdict verdict = judgeLongestStage();
    return {std::move(launch_), std::move(verdict)};
  }

 private:
  // --- the critical path ----------------------------------------------------------------------------------

  /// Of a thread without any event, the look tells the state; '?': nobody knows.
  char stateAfterwards(int32_t tid) const {
    if (tid == evidence_.look.pid && evidence_.look.isThere()) return evidence_.look.state;
    const LaunchedProcess* process = launched_.processOf(tid);
    return process && process->pid == tid && process->endedNs != 0 ? 'X' : '?';
  }

  StagePath pathOf(const LaunchStage& stage) const {
    StagePath found;
    found.path = criticalPath(evidence_.recording, timelines_, stage.tid,
                              threadTimeline(evidence_.recording, stage.tid, stateAfterwards(stage.tid)),
                              stage.fromNs, stage.toNs);
    std::map<int32_t, std::vector<StateSpan>> asleep;
    for (const CriticalPath::Piece& piece : found.path.pieces) {
      if (piece.span.state == ThreadState::uninterruptible) asleep[found.lastOf(piece)].push_back(piece.span);
    }
    std::vector<std::pair<uint64_t, int32_t>> longest;
    longest.reserve(asleep.size());
    for (const auto& [tid, spans] : asleep) longest.emplace_back(sumNs(spans), tid);
    std::sort(longest.rbegin(), longest.rend());
    size_t left = kMaxKernelSleeps;
    for (const auto& [ns, tid] : longest) {
      const std::vector<StateSpan>& spans = asleep[tid];
      if (spans.size() > left) break;
      left -= spans.size();
      const DiskWaits waits = diskWaits(evidence_.recording, requests_, tid, spans, WaitPlace::elsewhere,
                                        stage.fromNs, stage.toNs, &timelines_);
      if (isHalf(waits.waitedNs, ns)) found.diskWaits.emplace(tid, waits);
    }
    return found;
  }

  Doing doingOf(const StagePath& stage, const CriticalPath::Piece& piece) const {
    const int32_t tid = stage.lastOf(piece);
    const bool isDisk = piece.span.state == ThreadState::uninterruptible && stage.diskWaits.contains(tid);
    return {launched_.processOf(tid) != nullptr, nameOf(tid),
            isDisk ? kDiskShare : threadStateName(piece.span.state)};
  }

  /// Of what is recorded, of the paths; else what the launched process's first thread was sampled in. Most
  /// first; of the threads only the ids.
  std::vector<PathShare> sharesOf(uint64_t fromNs, uint64_t toNs) const {
    std::vector<PathShare> shares =
        launch_.isRecorded ? pathShares(fromNs, toNs)
                           : sampledShares(sampledPhases(first_, fromNs, toNs), first_.hungThread);
    std::sort(shares.begin(), shares.end(), [](const PathShare& a, const PathShare& b) {
      return std::tie(b.ns, a.thread.tid, a.doing) < std::tie(a.ns, b.thread.tid, b.doing);
    });
    return shares;
  }

  /// The first of them, with names and functions.
  std::vector<PathShare> namedShares(uint64_t fromNs, uint64_t toNs, size_t most) const {
    std::vector<PathShare> shares = sharesOf(fromNs, toNs);
    if (shares.size() > most) shares.resize(most);
    const SampledPhases sampled = sampledPhases(first_, fromNs, toNs);
    for (PathShare& share : shares) {
      share.thread = named(share.thread.tid);
      if (share.thread.tid == evidence_.look.pid && share.threads == 1) addFunction(sampled, share);
    }
    return shares;
  }

  std::vector<PathShare> pathShares(uint64_t fromNs, uint64_t toNs) const {
    std::map<Doing, std::map<int32_t, uint64_t>> sums;
    for (const StagePath& stage : paths_) {
      for (const CriticalPath::Piece& piece : stage.path.pieces) {
        const uint64_t ns = sharedNs(piece.span.fromNs, piece.span.toNs, fromNs, toNs);
        if (ns > 0 && piece.span.state != ThreadState::unknown)
          sums[doingOf(stage, piece)][stage.lastOf(piece)] += ns;
      }
    }
    std::vector<PathShare> shares;
    for (const auto& [doing, times] : sums) {
      const auto longest = std::max_element(times.begin(), times.end(),
                                            [](auto& one, auto& other) { return one.second < other.second; });
      PathShare& share = shares.emplace_back();
      share.thread.tid = longest->first;
      share.doing = doing.what;
      share.threads = times.size();
      for (const auto& [tid, ns] : times) share.ns += ns;
    }
    return shares;
  }

  // --- names ----------------------------------------------------------------------------------------------

  std::string nameOf(int32_t tid) const {
    const auto name = evidence_.recording.threadNames.find(tid);
    if (name != evidence_.recording.threadNames.end()) return name->second;
    if (tid != evidence_.look.pid) return {};
    return evidence_.look.isThere() || !evidence_.sampled ? evidence_.look.comm : evidence_.sampled->comm;
  }

  /// The processes of a launch may have gone: the recording tells whose their threads were.
  void findProcess(NamedThread& thread) const {
    if (evidence_.findProcess) evidence_.findProcess(thread);
    const LaunchedProcess* process = launched_.processOf(thread.tid);
    if (!process) return;
    thread.pid = process->pid;
    thread.process = nameOf(process->pid);
  }

  NamedThread named(int32_t tid) const {
    NamedThread thread{tid, nameOf(tid), 0, {}};
    findProcess(thread);
    return thread;
  }

  // --- phases and processes -------------------------------------------------------------------------------

  void addPhases() {
    struct Mark {
      uint64_t atNs;
      const char* what;
      pid_t pid;
    };
    std::vector<Mark> marks;
    const auto add = [&](uint64_t atNs, const char* what, pid_t pid) {
      if (atNs <= evidence_.fromNs || atNs >= evidence_.toNs) return;
      const auto later =
          std::find_if(marks.begin(), marks.end(), [&](const Mark& one) { return one.atNs > atNs; });
      marks.insert(later, {atNs, what, pid});
    };
    const auto addProcess = [&](const LaunchedProcess& process) {
      add(process.madeNs, "fork", process.pid);
      // A program may be started by scripts that execute one another.
      if (!process.executedNs.empty()) add(process.executedNs.front(), "exec", process.pid);
      if (process.executedNs.size() > 1) add(process.executedNs.back(), "last exec", process.pid);
    };
    addProcess(launched_.all.front());
    const LaunchedProcess* last = launched_.processOf(stages_.back().tid);
    if (last && last->pid != evidence_.look.pid) addProcess(*last);
    if (!launch_.isRecorded && evidence_.look.isThere())
      add(evidence_.look.madeNs, "fork", evidence_.look.pid);
    add(evidence_.connectedNs, "first connection", evidence_.look.pid);
    marks.push_back({evidence_.toNs, "end", 0});
    LaunchPhase phase;
    phase.to = "begin";
    phase.toNs = evidence_.fromNs;
    for (const Mark& mark : marks) {
      phase = {phase.to, mark.what, mark.pid == 0 ? NamedThread{} : named(mark.pid), phase.toNs, mark.atNs};
      const std::vector<PathShare> shares = namedShares(phase.fromNs, phase.toNs, 1);
      if (!shares.empty() && isHalf(shares[0].ns, phase.toNs - phase.fromNs)) phase.mostly = shares[0];
      launch_.phases.push_back(phase);
    }
  }

  void addMembers() {
    std::vector<const LaunchedProcess*> order;
    order.reserve(launched_.all.size());
    for (const LaunchedProcess& process : launched_.all) order.push_back(&process);
    launch_.processCount = order.size();
    std::sort(order.begin() + 1, order.end(), [](auto* a, auto* b) {
      return std::tie(b->runningNs, a->pid) < std::tie(a->runningNs, b->pid);
    });
    if (order.size() > kMaxMembersListed) order.resize(kMaxMembersListed);
    for (const LaunchedProcess* process : order) {
      launch_.processes.push_back({process->pid, nameOf(process->pid), process->parent,
                                   process->threads.size(), process->madeNs, process->endedNs,
                                   process->runningNs});
    }
  }

  // --- the verdict ----------------------------------------------------------------------------------------

  Verdict judgeLongestStage() {
    const auto longest = std::max_element(stages_.begin(), stages_.end(),
                                          [](const auto& a, const auto& b) { return a.ns() < b.ns(); });
    const StagePath& path = paths_[static_cast<size_t>(longest - stages_.begin())];
    launch_.followed = capture(longest->tid);
    Evidence evidence{longest->fromNs,
                      longest->toNs,
                      evidence_.recording,
                      launch_.followed,
                      evidence_.processes,
                      evidence_.pressure,
                      {},
                      longest->tid == evidence_.look.pid ? surroundings() : Surroundings{},
                      {},
                      [this](NamedThread& thread) { findProcess(thread); },
                      /*isLaunch=*/true};
    evidence.recordedChain = chainOf(evidence, path);
    if (evidence.recordedChain) addWaits(*evidence.recordedChain);
    Verdict verdict = kelvane::judge(evidence);
    if (verdict.fromRecorder && !isHalf(longest->ns(), windowNs()) &&
        judgeByMembers({evidence_.look.pid, evidence_.fromNs, evidence_.toNs}, verdict))
      return verdict;
    if (verdict.fromRecorder && !verdict.chain && verdict.cause == Cause::sleeping)
      judgeByMembers(*longest, verdict);
    // The launcher's computing is not the launch's.
    if (verdict.cause == Cause::ownCpu && !launched_.processOf(longest->tid)) verdict.cause = Cause::peer;
    if (!verdict.hasTimes()) {
      verdict.cause = Cause::unknown;
      judgeByLife(evidence_, launch_.isRecorded, verdict);
    } else if (verdict.fromSamples) {
      if (verdict.cause != Cause::ownCpu) verdict.sentence += othersOfLife(evidence_);
    } else if (static_cast<double>(longest->ns()) < kWholeLaunch * static_cast<double>(windowNs())) {
      verdict.sentence =
          "In " + ofDuration(longest->ns(), windowNs()) + " of the launch: " + verdict.sentence;
    }
    return verdict;
  }

  /// What lasts on after the launch is none of its reasons.
  Surroundings surroundings() const {
    Surroundings around = evidence_.look.around;
    around.limits.frozen.clear();
    return around;
  }

  /// Of a time that was up to many, none of whom had most of it: what these did for most of the time, if they
  /// all are the launch's. Whether that is known.
  bool judgeByMembers(const LaunchStage& stage, Verdict& verdict) const {
    std::map<std::string, uint64_t> sums;
    std::map<std::string, int32_t> most;
    for (const PathShare& share : sharesOf(stage.fromNs, stage.toNs)) {
      if (!launched_.processOf(share.thread.tid)) continue;
      sums[share.doing] += share.ns;
      most.try_emplace(share.doing, share.thread.tid);
    }
    const auto tell = [&](const char* doing, Cause cause, const std::string& text) {
      if (!isHalf(sums[doing], stage.ns())) return false;
      const NamedThread longest = named(most.at(doing));
      verdict.cause = cause;
      verdict.chain.reset();
      verdict.sentence = nameOf(stage.tid) + " (thread " + std::to_string(stage.tid) +
                         ") and what it started " + text + " for " + ofDuration(sums[doing], stage.ns()) +
                         ", most of all '" + longest.name + "' (pid " + std::to_string(longest.pid) + ").";
      return true;
    };
    return tell("running", Cause::ownCpu, "were busy themselves") ||
           tell("runnable", Cause::starved, "were ready to run, and not given a CPU,") ||
           tell(kDiskShare, Cause::disk, "waited for the disk");
  }

  uint64_t windowNs() const { return evidence_.toNs - evidence_.fromNs; }

  /// What is known of the thread and its process, as a look at the end would have found it.
  ProcessCapture capture(int32_t tid) const {
    const NamedThread thread = named(tid);
    ProcessCapture capture;
    capture.pid = thread.pid != 0 ? thread.pid : tid;
    capture.comm = thread.process;
    capture.hungThread = tid;
    capture.threadCount = 1;
    const auto add = [&](int32_t id) {
      ThreadFacts& facts = capture.threads.emplace_back().facts;
      facts.tid = id;
      facts.comm = nameOf(id);
      facts.state = stateAfterwards(id);
    };
    add(tid);
    if (const LaunchedProcess* process = launched_.processOf(tid)) {
      capture.threadCount = process->threads.size();
      for (const int32_t other : process->threads) {
        if (other != tid && capture.threads.size() < kMaxThreadsListed) add(other);
      }
    }
    if (tid == evidence_.look.pid && evidence_.sampled) {
      capture.frames = evidence_.sampled->frames;
      capture.modules = evidence_.sampled->modules;
      capture.samples = evidence_.sampled->samples;
      capture.clockMarks = evidence_.sampled->clockMarks;
    }
    return capture;
  }

  /// Whom the thread of the path waited for, most of its longer kind of sleep, and what that one did most;
  /// nothing if that was no one thread.
  std::optional<ChainVerdict> chainOf(const Evidence& evidence, const StagePath& stage) const {
    const CriticalPath& path = stage.path;
    std::map<size_t, std::map<ThreadState, std::vector<StateSpan>>> spans;  // of each route's last thread
    std::map<ThreadState, uint64_t> asleepNs;
    for (const CriticalPath::Piece& piece : path.pieces) {
      asleepNs[path.routes[piece.route].firstState] += piece.ns();
      spans[piece.route][piece.span.state].push_back(piece.span);
    }
    const ThreadState state = asleepNs[ThreadState::sleeping] >= asleepNs[ThreadState::uninterruptible]
                                  ? ThreadState::sleeping
                                  : ThreadState::uninterruptible;
    for (const auto& [route, byState] : spans) {
      if (path.routes[route].firstState != state || path.routes[route].threads.size() < 2) continue;
      uint64_t routeNs = 0;
      for (const auto& [last, of] : byState) routeNs += sumNs(of);
      const auto longest = std::max_element(byState.begin(), byState.end(), [](auto& one, auto& other) {
        return sumNs(one.second) < sumNs(other.second);
      });
      if (!isHalf(routeNs, asleepNs[state]) || longest->first == ThreadState::unknown) continue;
      return recordedChain(evidence, stage, path.routes[route].threads, state, longest->second);
    }
    return std::nullopt;
  }

  ChainVerdict recordedChain(const Evidence& evidence, const StagePath& stage,
                             const std::vector<int32_t>& threads, ThreadState state,
                             const std::vector<StateSpan>& last) const {
    ChainVerdict verdict{{}, state, ChainEnd::waited, {}, {}};
    for (size_t i = 0; i < threads.size(); i++) {
      const NamedThread thread = named(threads[i]);
      ChainLink link;
      link.party.pid = thread.pid != 0 ? thread.pid : thread.tid;
      link.party.process = thread.pid != 0 ? thread.process : thread.name;
      link.party.facts.tid = thread.tid;
      link.party.facts.comm = thread.name;
      link.party.facts.priority = thread.priority.value_or(0);
      if (i + 1 < threads.size()) link.wait = waitFor(threads[i], threads[i + 1], last.back().toNs);
      if (link.wait) link.holder = link.wait->holders.front();
      link.party.facts.state = link.wait ? 'S' : '?';
      verdict.chain.links.push_back(std::move(link));
    }
    if (state == ThreadState::uninterruptible) verdict.chain.links.front().party.facts.state = 'D';
    addEnd(evidence, stage, threads.back(), last, verdict);
    verdict.steps = chainSteps(evidence.process, verdict);
    return verdict;
  }

  PartyWait waitFor(int32_t tid, int32_t holder, uint64_t untilNs) const {
    const NamedThread thread = named(holder);
    const LaunchedProcess* process = launched_.processOf(holder);
    const LaunchedProcess* own = launched_.processOf(tid);
    const bool isItsChild = process && own && process->pid == holder && process->parent == own->pid;
    const bool isItsEnd =
        isItsChild && process->endedNs >= untilNs && process->endedNs <= untilNs + kEndReachNs;
    PartyWait wait{tid, isItsEnd ? WaitKind::child : WaitKind::peer, isItsEnd ? "end" : "", {}};
    wait.holders = {
        {thread.pid != 0 ? thread.pid : holder, holder, Sureness::likely, "it woke it (recorded)"}};
    return wait;
  }

  /// What the last one did, who kept it from going on, and what the launch is called by that: what launched
  /// processes compute is the launch's own time.
  void addEnd(const Evidence& evidence, const StagePath& stage, int32_t tid,
              const std::vector<StateSpan>& spans, ChainVerdict& verdict) const {
    const bool isOwn = launched_.processOf(tid) != nullptr;
    const auto& lastWait = verdict.chain.links[verdict.chain.links.size() - 2].wait;
    const Cause other = lastWait && lastWait->kind == WaitKind::child ? Cause::child : Cause::peer;
    ThreadFacts& facts = verdict.chain.links.back().party.facts;
    switch (spans.back().state) {
      case ThreadState::running:
        facts.state = 'R';
        verdict.end = ChainEnd::computed;
        verdict.cause = isOwn ? Cause::ownCpu : other;
        return;
      case ThreadState::runnable:
        facts.state = 'R';
        verdict.end = ChainEnd::starved;
        verdict.ranInstead = competitor(evidence, spans, tid);
        return;
      case ThreadState::stopped:
        facts.state = 'T';
        verdict.end = ChainEnd::stopped;
        return;
      case ThreadState::uninterruptible: {
        facts.state = 'D';
        const auto disk = stage.diskWaits.find(tid);
        verdict.end = disk == stage.diskWaits.end() ? ChainEnd::kernel : ChainEnd::disk;
        const auto user = disk == stage.diskWaits.end() ? std::nullopt : disk->second.busiestOther;
        if (user) verdict.diskUser = named(*user);
        break;
      }
      default:
        facts.state = 'S';
        verdict.end = spans.back().end == SleepEnd::timeOut ? ChainEnd::slept : ChainEnd::waited;
        break;
    }
    if (verdict.end != ChainEnd::disk) verdict.cause = isOwn ? Cause::sleeping : other;
    if (verdict.end == ChainEnd::kernel && isOwn) verdict.cause = Cause::unknown;
  }

  /// The verdict tells whose ends of sleeps the chain accounts for by the waits that a look finds.
  void addWaits(const ChainVerdict& verdict) {
    for (const ChainLink& link : verdict.chain.links) {
      launch_.followed.waits.parties.push_back(link.party);
      if (link.wait) launch_.followed.waits.waits.push_back(*link.wait);
    }
  }

  const LaunchEvidence& evidence_;
  const ThreadTimelines timelines_;
  const std::vector<DiskRequest> requests_;
  const LaunchedProcesses launched_;
  ProcessCapture first_;             // the launched process's first thread, with its samples
  std::vector<LaunchStage> stages_;  // from the launch's begin on
  std::vector<StagePath> paths_;     // one for each of them
  Launch launch_;
};

}  // namespace

std::pair<Launch, Verdict> judgeLaunch(const LaunchEvidence& evidence) {
  return LaunchJudge(evidence).judge();
}

}  // namespace kelvane
