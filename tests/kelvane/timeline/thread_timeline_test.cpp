#include "kelvane/timeline/thread_timeline.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/kelvane/verdict/made_up_machine.h"

namespace kelvane {
namespace {

TEST(ThreadTimeline, FollowsAThreadFromStateToState) {
  MadeUpMachine machine;
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
  MadeUpMachine machine;
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
  MadeUpMachine moved;
  moved.switches(1'000, kApp, 'R', kHog);
  moved.switches(2'000, kHog, 'S', kApp);
  moved.switches(3'000, kOther, 'S', 0, 1);
  moved.switches(6'000, kApp, 'R', kHog);
  moved.switches(9'000, kApp, 'S', kOther, 1);
  moved.addMissing();
  EXPECT_EQ(timeByState(moved.timeline(), 0, 11'000 * kMs),
            (TimeByState{8'000 * kMs, 1'000 * kMs, 2'000 * kMs, 0, 0, 0}));
}

TEST(ThreadTimeline, AThreadThatHasACpuInTheEndCameToOneThatWasIdle) {
  MadeUpMachine machine;
  machine.switches(1'000, kHog, 'S', kApp);
  machine.switches(2'000, kApp, 'R', kHog);
  machine.switches(2'500, kLogger, 'S', 0, 1);  // where it doesn't come from
  machine.switches(3'000, kHog, 'S', 0);
  const TimeByState kept = timeByState(machine.timeline(), 0, 11'000 * kMs);
  machine.arrived(kWorker);  // of which nothing is recorded
  EXPECT_EQ(timeByState(machine.timeline(), 0, 11'000 * kMs), kept);
  machine.arrived(kApp);
  EXPECT_EQ(timeByState(machine.timeline(), 0, 11'000 * kMs),
            (TimeByState{9'000 * kMs, 2'000 * kMs, 0, 0, 0, 0}));
  EXPECT_EQ(machine.timeline().back().cpu, 0);
  machine.arrived(kApp);  // it runs already
  EXPECT_EQ(machine.timeline().back().fromNs, 3'000 * kMs);

  MadeUpMachine elsewhere;
  elsewhere.switches(1'000, kApp, 'S', kHog);
  elsewhere.switches(1'500, kLogger, 'S', 0, 1);
  elsewhere.wakes(2'000, kHog, kApp);  // on the CPU that the hog keeps
  elsewhere.arrived(kApp);
  EXPECT_EQ(elsewhere.timeline().back().cpu, 1);
  EXPECT_EQ(elsewhere.timeline().back().fromNs, 2'000 * kMs);
}

TEST(ThreadTimeline, AThreadWithoutEventsIsJudgedByTheLook) {
  MadeUpMachine machine;
  EXPECT_EQ(machine.timeline().front().state, ThreadState::sleeping);
  machine.look().state = 'R';  // a CPU to itself, or none
  EXPECT_EQ(machine.timeline().front().state, ThreadState::unknown);
}

TEST(CpuRuns, AreNeverEmptyAndNeverGuessed) {
  MadeUpMachine machine;
  machine.coveredFrom(1'000);
  machine.switches(500, kOther, 'S', kWorker);  // before the coverage
  machine.switches(1'000, kWorker, 'S', kApp);  // the coverage begins with it
  machine.switches(2'000, kApp, 'S', kHog);
  machine.switches(2'500, kOther, 'S', kLogger, 1);
  machine.switches(3'000, kOther, 'S', kApp);  // the hog's way off the CPU was lost
  machine.switches(11'000, kApp, 'S', kHog);   // the recording ends with it
  EXPECT_EQ(machine.cpuRuns(),
            "0: 100 from 1000 to 2000, 1: 300 from 1000 to 2500, 0: 100 from 3000 to 11000, "
            "1: 102 from 2500 to 11000, ");
}

}  // namespace
}  // namespace kelvane
