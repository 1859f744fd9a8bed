#include <gtest/gtest.h>
#include <signal.h>

#include "kelvane/capture/lock_owner.h"
#include "kelvane/capture/pressure.h"
#include "kelvane/timeline/missing_switches.h"
#include "kelvane/verdict/judge.h"

namespace kelvane {
namespace {

constexpr uint64_t kMs = 1'000'000;
constexpr int kApp = 100, kWorker = 101, kHog = 200, kOther = 300;

/// A machine of two CPUs and a hang of thread 100 from second 1 to second 11, recorded from second 0 on,
/// which is looked at right at its end. Times are milliseconds.
class Machine {
 public:
  Machine() {
    recording_.toNs = 11'000 * kMs;
    recording_.threadNames = {{kApp, "viewer"}, {kWorker, "worker"}, {kHog, "hog"}, {kOther, "other"}};
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
  void coveredFrom(uint64_t ms) { recording_.coveredFromNs = ms * kMs; }
  void withoutRecorder() { recording_ = {}; }
  void addMissing() { addMissingSwitches(recording_); }
  ThreadFacts& look() { return process.threads[0].facts; }

  std::vector<StateSpan> timeline() const {
    return threadTimeline(recording_, kApp, process.threads[0].facts.state);
  }
  Verdict verdict() const {
    auto findProcess = [](NamedThread& thread) { thread.pid = thread.tid == kWorker ? kApp : thread.tid; };
    return judge({1'000 * kMs, 11'000 * kMs, recording_, process, processes, pressure, findProcess});
  }

  ProcessCapture process;
  ProcessScan processes;
  Pressure pressure;

 private:
  Recording recording_;
};

void expectSays(const Verdict& verdict, Cause cause, const std::string& part) {
  EXPECT_STREQ(causeName(verdict.cause), causeName(cause)) << verdict.sentence;
  EXPECT_NE(verdict.sentence.find(part), std::string::npos) << verdict.sentence;
}

uint64_t spentMs(const Verdict& verdict, ThreadState state) {
  return verdict.spent.value_or(TimeByState{})[static_cast<size_t>(state)] / kMs;
}

TEST(ThreadTimeline, FollowsAThreadFromStateToState) {
  Machine machine;
  machine.coveredFrom(500);
  machine.wakes(100, kHog, kApp);            // before the coverage: counts for nothing
  machine.switches(2'000, kHog, 'R', kApp);  // woken before the coverage
  machine.switches(3'000, kApp, 'D', kHog);
  machine.wakes(4'000, kWorker, kApp);
  machine.switches(5'000, kHog, 'R', kApp, 1);
  machine.wakes(6'000, kHog, kApp);  // recorded before the switch that it undoes
  machine.switches(6'001, kApp, 'S', kHog, 1);
  machine.switches(7'000, kHog, 'R', kApp, 1);
  machine.switches(8'000, kApp, 'T', kHog, 1);
  machine.switches(9'000, kApp, 'S', kHog, 1);  // its way onto the CPU was lost
  std::string states;
  uint64_t atNs = 0;
  for (const StateSpan& span : machine.timeline()) {
    EXPECT_EQ(span.fromNs, atNs);
    atNs = span.toNs;
    states += std::string(threadStateName(span.state)) + " " + std::to_string(span.toNs / kMs) + ", ";
  }
  EXPECT_EQ(states,
            "unknown 500, runnable 2000, running 3000, uninterruptible 4000, runnable 5000, running 6001, "
            "runnable 7000, running 8000, unknown 9000, sleeping 11000, ");
  EXPECT_EQ(machine.timeline()[3].wokenBy, kWorker);
  EXPECT_EQ(machine.timeline()[4].cpu, 1);
}

TEST(ThreadTimeline, ASwitchFromIdleThatTheKernelKeptBackIsMadeUp) {
  Machine machine;
  machine.switches(1'000, kApp, 'S', 0);
  machine.wakes(2'000, 0, kApp);
  machine.event(2'001, RecordedKind::blockComplete, 0);
  machine.switches(5'000, kApp, 'S', 0);
  machine.addMissing();
  auto spans = machine.timeline();
  ASSERT_EQ(spans.size(), 5u);
  EXPECT_EQ(spans[2].state, ThreadState::runnable);
  EXPECT_EQ(spans[3].state, ThreadState::running);
  EXPECT_EQ(spans[3].fromNs, 2'001 * kMs);
  EXPECT_EQ(spans[3].toNs, 5'000 * kMs);

  // It came from another CPU, long after this one had become idle.
  Machine moved;
  moved.switches(1'000, kApp, 'R', kHog);
  moved.switches(2'000, kHog, 'S', kApp);
  moved.switches(3'000, kOther, 'S', 0, 1);
  moved.switches(6'000, kApp, 'R', kHog);
  moved.switches(9'000, kApp, 'S', kOther, 1);
  moved.addMissing();
  EXPECT_EQ(timeByState(moved.timeline(), 0, 11'000 * kMs),
            (TimeByState{8'000 * kMs, 1'000 * kMs, 2'000 * kMs, 0, 0, 0}));
}

TEST(ThreadTimeline, AThreadWithoutEventsIsJudgedByTheLook) {
  Machine machine;
  EXPECT_EQ(machine.timeline().front().state, ThreadState::sleeping);
  machine.look().state = 'R';  // a CPU to itself, or none
  EXPECT_EQ(machine.timeline().front().state, ThreadState::unknown);
}

TEST(Verdict, TellsBusyFromStarved) {
  Machine busy;
  busy.look().state = 'R';
  busy.switches(900, kOther, 'S', kApp);
  busy.switches(5'000, kApp, 'R', kHog);
  busy.switches(5'400, kHog, 'R', kApp);
  expectSays(busy.verdict(), Cause::ownCpu, "viewer (thread 100) was busy itself: 96 % of 10.0 s on the CPU");
  EXPECT_EQ(spentMs(busy.verdict(), ThreadState::runnable), 400u);

  // The busiest of all had the other CPU: it took nothing away.
  Machine starved;
  starved.look().state = 'R';
  starved.switches(500, 0, 'R', kOther, 1);
  starved.switches(1'000, kApp, 'R', kHog);
  starved.switches(9'500, kHog, 'R', kApp);
  Verdict verdict = starved.verdict();
  expectSays(verdict, Cause::starved, "ready to run for 85 % of 10.0 s, but the CPU ran 'hog' (pid 200)");
  ASSERT_EQ(verdict.busiest.size(), 2u);
  EXPECT_EQ(verdict.busiest[0].thread.name, "other");

  Machine throttled;
  throttled.look().state = 'R';
  throttled.switches(1'000, kApp, 'R', 0);
  throttled.switches(9'500, 0, 'R', kApp);
  expectSays(throttled.verdict(), Cause::starved, "its CPU was idle");
}

TEST(Verdict, NamesWhatASleeperWaitsFor) {
  Machine machine;
  machine.look().waitChannel = "futex_do_wait";
  machine.switches(1'500, kApp, 'S', kOther);
  machine.process.lockOwner = kWorker;
  machine.process.threads[1].facts.state = 'S';
  Verdict lock = machine.verdict();
  expectSays(lock, Cause::lock,
             "waited for 9.5 of 10.0 s for a lock that thread 101 'worker' holds, itself sleeping");
  ASSERT_EQ(lock.waits.size(), 1u);
  EXPECT_EQ(lock.waits[0].waitChannel, "futex_do_wait");
  EXPECT_EQ(lock.waits[0].fromNs, 1'500 * kMs);

  machine.process.lockOwner = 0;
  machine.process.peer = Peer{7, "database", "Unix socket"};
  expectSays(machine.verdict(), Cause::peer, "process 'database' (pid 7), through a Unix socket");

  // The hang is over by the time of the look: what the thread waits for now is something else.
  machine.wakes(10'900, kWorker, kApp);
  machine.switches(10'901, kOther, 'S', kApp);
  Verdict over = machine.verdict();
  expectSays(over, Cause::sleeping, "woken from its longest sleep by its own thread 'worker'");
  EXPECT_EQ(over.waits[0].wokenBy.value_or(NamedThread{}).name, "worker");
  EXPECT_FALSE(over.peer);
}

TEST(Verdict, TellsDiskMemoryStopAndSuspend) {
  Machine disk;
  disk.look().state = 'D';
  disk.switches(900, kApp, 'D', 0);
  for (uint64_t ms = 1'000; ms < 9'000; ms += 1'000) {
    RecordedEvent& issue = disk.event(ms, RecordedKind::blockIssue, kApp, 0, 'R');
    issue.value = ms;
    issue.bytes = 500'000;
    disk.event(ms + 900, RecordedKind::blockComplete, 0).value = ms;
  }
  Verdict verdict = disk.verdict();
  expectSays(verdict, Cause::disk, "all of 10.0 s for the disk (the system's 8 requests: 3.8 MB read");
  const DiskActivity activity = verdict.disk.value_or(DiskActivity{});
  EXPECT_EQ(activity.busyNs, 7'200 * kMs);
  EXPECT_EQ(activity.slowestNs, 900 * kMs);
  disk.pressure.memory = PressureLine{60, 40};
  disk.event(9'999, RecordedKind::fileFault, kApp);
  expectSays(disk.verdict(), Cause::memory, "read back in (1 pages)");

  Machine dead;  // one request that never comes back
  dead.switches(900, kApp, 'D', 0);
  dead.event(1'000, RecordedKind::blockIssue, kApp, 0, 'W');
  dead.look().state = 'D';
  expectSays(dead.verdict(), Cause::disk, "the slowest took 10000.0 ms");

  Machine kernel;
  kernel.look() = {kApp, "viewer", 'D', "vfork_wait", 0, {}, {}, 0, 0, 0, 0};
  kernel.switches(900, kApp, 'D', 0);
  expectSays(kernel.verdict(), Cause::unknown, "(vfork_wait), for something that is no disk");

  Machine stopped;
  stopped.event(2'000, RecordedKind::signal, kApp, kOther).value = SIGSTOP;
  stopped.switches(2'000, kApp, 'T', 0);
  expectSays(stopped.verdict(), Cause::stopped, "for 9.0 of 10.0 s by the signal SIGSTOP from thread 300");
  stopped.look().tracerPid = 5;
  expectSays(stopped.verdict(), Cause::stopped, "by a debugger (tracer pid 5)");

  Machine suspended;
  suspended.event(2'000, RecordedKind::suspendBegin, kOther);
  suspended.event(8'000, RecordedKind::suspendEnd, kOther);
  expectSays(suspended.verdict(), Cause::suspended, "for 6.0 of 10.0 s of the hang");

  Machine reclaiming;
  reclaiming.switches(500, kOther, 'S', kApp);
  reclaiming.event(2'000, RecordedKind::reclaimBegin, kApp);
  expectSays(reclaiming.verdict(), Cause::memory, "free memory itself for 9.0 of 10.0 s");
}

TEST(Verdict, IsAsCautiousAsItsEvidence) {
  Machine machine;
  machine.coveredFrom(8'000);
  machine.switches(8'500, kApp, 'D', 0);
  machine.look().state = 'D';
  machine.look().kernelStack = {"io_schedule+0x42/0x70"};
  Verdict partly = machine.verdict();
  EXPECT_TRUE(partly.fromRecorder);
  EXPECT_EQ(partly.coveredNs, 3'000 * kMs);
  EXPECT_EQ(spentMs(partly, ThreadState::unknown), 7'000u);
  expectSays(partly, Cause::disk,
             "Going by the 3.0 of 10.0 s that are known: viewer (thread 100) waited for 2.5 of 3.0 s");

  machine.coveredFrom(10'500);
  EXPECT_FALSE(machine.verdict().fromRecorder);
  machine.withoutRecorder();
  Verdict look = machine.verdict();
  expectSays(look, Cause::disk,
             "Going by one look, without a recording of the hang: viewer (thread 100) waited for the disk.");
  EXPECT_FALSE(look.spent || look.disk);

  machine.look().state = 'R';
  machine.processes.awake = {{kHog, "hog", 'R', {}}};
  expectSays(machine.verdict(), Cause::starved, "'hog' (pid 200)");
  machine.look().userMs = 9'000;
  expectSays(machine.verdict(), Cause::ownCpu, "busy itself");
  machine.process = {};
  expectSays(machine.verdict(), Cause::unknown, "no process");
}

TEST(Verdict, ReadsMutexesAndPressure) {
  EXPECT_EQ(ownerInMutex({2, 0, 4711, 1, 0}), 4711);                // glibc, contended
  EXPECT_EQ(ownerInMutex({1, 0, 4711, 1, 0}), 0);                   // nobody waits
  EXPECT_EQ(ownerInMutex({2, 0, 4711, 1, 0x7f001234}), 0);          // no mutex's kind
  EXPECT_EQ(ownerInMutex({0x80000000 | 4711, 0, 0, 0, 32}), 4711);  // priority-inheriting
  const PressureLine line =
      parsePressure(
          "some avg10=30.47 avg60=8.51 avg300=4.36 total=2804470008\nfull avg10=1.50 avg60=0 total=0\n")
          .value_or(PressureLine{});
  EXPECT_DOUBLE_EQ(line.some10, 30.47);
  EXPECT_DOUBLE_EQ(line.full10.value_or(0), 1.5);
  EXPECT_FALSE(parsePressure("some avg10=-1 "));
  EXPECT_FALSE(parsePressure(""));
}

}  // namespace
}  // namespace kelvane
