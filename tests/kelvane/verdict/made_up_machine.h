#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kelvane/capture/pressure.h"
#include "kelvane/capture/rivals.h"
#include "kelvane/capture/surroundings.h"
#include "kelvane/timeline/cpu_runs.h"
#include "kelvane/timeline/launched_processes.h"
#include "kelvane/timeline/missing_switches.h"
#include "kelvane/verdict/judge.h"
#include "kelvane/verdict/launch_verdict.h"

namespace kelvane {

inline constexpr uint64_t kMs = 1'000'000;
inline constexpr int kApp = 100, kWorker = 101, kLogger = 102, kHog = 200, kOther = 300, kDatabase = 7;

/// A machine of two CPUs and a hang of thread 100 from second 1 to second 11, recorded from second 0 on,
/// which is looked at right at its end. Times are milliseconds.
class MadeUpMachine {
 public:
  MadeUpMachine() {
    recording_.toNs = 11'000 * kMs;
    recording_.threadNames = recordedNames();
    process.pid = process.hungThread = kApp;
    process.threads.resize(2);
    process.threads[0].facts.tid = kApp;
    process.threads[0].facts.comm = "viewer";
    process.threads[0].facts.state = 'S';
    process.threads[1].facts.tid = kWorker;
    process.threads[1].facts.comm = "worker";
  }

  RecordedEvent& event(uint64_t atMs, RecordedKind kind, int tid, int other = 0, char state = '?') {
    return recording_.events.emplace_back(RecordedEvent{atMs * kMs, kind, state, 0, tid, other, 0, 0, 0});
  }
  void switches(uint64_t atMs, int from, char state, int to, uint16_t cpu = 0) {
    event(atMs, RecordedKind::contextSwitch, from, to, state).cpu = cpu;
  }
  void wakes(uint64_t atMs, int by, int whom) { event(atMs, RecordedKind::wakeup, by, whom); }
  /// An interrupt that comes upon `by`, `us` after the event that it is about.
  void interruptWakes(uint64_t atMs, int by, int whom, uint64_t us = 10) {
    event(atMs, RecordedKind::wakeup, by, whom, 'i').atNs += us * 1'000;
  }
  /// From `fromMs` on; never comes back if `toMs` is 0.
  void request(int by, uint64_t fromMs, uint64_t toMs, char operation = 'R') {
    RecordedEvent& issue = event(fromMs, RecordedKind::blockIssue, by, 0, operation);
    issue.value = fromMs;
    issue.bytes = 500'000;
    if (toMs != 0) event(toMs, RecordedKind::blockComplete, kHog).value = fromMs;
  }
  void makes(uint64_t atMs, int by, int whom, bool isThread = false) {
    event(atMs, RecordedKind::newTask, by, whom).value = isThread ? CLONE_THREAD : 0;
  }
  void executes(uint64_t atMs, int tid) { event(atMs, RecordedKind::execution, tid); }
  void coveredFrom(uint64_t ms) { recording_.coveredFromNs = ms * kMs; }
  void withoutRecorder() { recording_ = {}; }
  /// Of a machine without a recorder: there is one that has just been started.
  void coveredUntilTheLookFrom(uint64_t ms) {
    recording_.toNs = 11'000 * kMs;
    coveredFrom(ms);
  }
  std::unordered_map<int32_t, std::string>& names() { return recording_.threadNames; }
  void addMissing() { addMissingSwitches(recording_); }
  void arrived(int tid) { addMissingArrival(recording_, tid); }
  ThreadFacts& look() { return process.threads[0].facts; }

  std::string cpuRuns() const {
    std::string runs;
    visitCpuRuns(recording_, [&](const CpuRun& run) {
      runs += std::to_string(run.cpu) + ": " + std::to_string(run.tid) + " from " +
              std::to_string(run.fromNs / kMs) + " to " + std::to_string(run.toNs / kMs) + ", ";
    });
    return runs;
  }
  std::vector<StateSpan> timeline() const {
    return threadTimeline(recording_, kApp, process.threads[0].facts.state);
  }
  Verdict verdict() const {
    auto findProcess = [this](NamedThread& thread) {
      thread.pid = thread.tid == kWorker ? kApp : thread.tid;
      thread.priority = thread.tid == realTime_ ? -51 : 20;
    };
    const Recording recording = sorted();
    const auto watchRivals = [this](pid_t, pid_t) { return rivals; };
    return judge({1'000 * kMs, 11'000 * kMs, recording, process, processes, pressure, before, after,
                  watchRivals, findProcess});
  }

  /// Of a launch of kApp in the same time, which ended as the recording does.
  std::pair<Launch, Verdict> launched(const LaunchedLook& look, uint64_t connectedMs = 0) const {
    auto findProcess = [](NamedThread& thread) {
      thread.pid = thread.tid;
      thread.process = thread.name;
    };
    Recording recording = sorted();
    if (!look.isThere()) addMissingMaking(recording, kApp);
    return judgeLaunch({1'000 * kMs, 11'000 * kMs, recording, processes, pressure, look, connectedMs * kMs,
                        findProcess, process.clockMarks.empty() ? nullptr : &process});
  }

  /// Whatever a thread waited for before is forgotten.
  void waits(int tid, WaitKind kind, int holder, const char* object = "") {
    party(tid);
    party(holder);
    std::erase_if(process.waits.waits, [&](const PartyWait& wait) { return wait.tid == tid; });
    process.waits.waits.push_back(
        {tid, kind, object, {{isOwn(holder) ? kApp : holder, holder, Sureness::certain, ""}}});
  }
  /// Likewise, for what nobody owns.
  PartyWait& waitsForSignal(int tid, std::vector<int> candidates, WaitKind kind = WaitKind::signal) {
    party(tid);
    std::erase_if(process.waits.waits, [&](const PartyWait& wait) { return wait.tid == tid; });
    PartyWait& wait = process.waits.waits.emplace_back(PartyWait{tid, kind, "", {}});
    for (const int candidate : candidates) {
      party(candidate);
      wait.candidates.push_back({kApp, candidate, Sureness::guess, ""});
    }
    return wait;
  }
  void watched(int tid, uint64_t forMs, uint64_t ranMs) {
    std::erase_if(process.waits.watches, [&](const PartyWatch& watch) { return watch.tid == tid; });
    process.waits.watches.push_back({tid, false, false, false, forMs * kMs, ranMs * kMs});
  }
  ThreadFacts& party(int tid) {
    for (WaitParty& known : process.waits.parties) {
      if (known.facts.tid == tid) return known.facts;
    }
    const std::string name = recordedNames().at(tid);
    WaitParty& made = process.waits.parties.emplace_back(
        WaitParty{isOwn(tid) ? kApp : tid, isOwn(tid) ? "viewer" : name, {}});
    made.facts.tid = tid;
    made.facts.comm = name;
    made.facts.state = 'S';
    made.facts.priority = 20;
    return made.facts;
  }
  void isRealTime(int tid) { realTime_ = tid; }

  ProcessCapture process;
  ProcessScan processes;
  Pressure pressure;
  Surroundings before, after;
  std::optional<Rivals> rivals;

 private:
  Recording sorted() const {
    Recording recording = recording_;
    std::stable_sort(recording.events.begin(), recording.events.end(),
                     [](const auto& a, const auto& b) { return a.atNs < b.atNs; });
    return recording;
  }
  static bool isOwn(int tid) { return tid == kApp || tid == kWorker || tid == kLogger; }
  static std::unordered_map<int32_t, std::string> recordedNames() {
    return {{kApp, "viewer"}, {kWorker, "worker"}, {kLogger, "logger"},
            {kHog, "hog"},    {kOther, "other"},   {kDatabase, "database"}};
  }

  int realTime_ = 0;
  Recording recording_;
};

inline void expectSays(const Verdict& verdict, Cause cause, const std::string& part) {
  EXPECT_STREQ(causeName(verdict.cause), causeName(cause)) << verdict.sentence;
  EXPECT_NE(verdict.sentence.find(part), std::string::npos) << verdict.sentence;
}

inline uint64_t spentMs(const Verdict& verdict, ThreadState state) {
  return verdict.spent.value_or(TimeByState{})[static_cast<size_t>(state)] / kMs;
}

}  // namespace kelvane
