#include <gtest/gtest.h>

#include <string>

#include "tests/kelvane/verdict/made_up_machine.h"

namespace kelvane {
namespace {

constexpr int kLauncher = kOther, kChild = kLogger;

/// The launched process as nothing is left of it.
LaunchedLook gone() {
  LaunchedLook look;
  look.pid = kApp;
  return look;
}

/// A launcher that makes the application a tenth of a second into the launch.
MadeUpMachine launching() {
  MadeUpMachine machine;
  machine.switches(900, 0, 'R', kLauncher);
  machine.makes(1'100, kLauncher, kApp);
  machine.switches(1'100, kLauncher, 'S', kApp);
  machine.executes(1'200, kApp);
  return machine;
}

std::string phasesOf(const Launch& launch) {
  std::string text;
  for (const LaunchPhase& phase : launch.phases) {
    text += phase.to + " after " + std::to_string((phase.toNs - phase.fromNs) / kMs);
    if (phase.mostly) text += " (" + phase.mostly->thread.name + " " + phase.mostly->doing + ")";
    text += ", ";
  }
  return text;
}

std::string pathOf(const Launch& launch) {
  std::string text;
  for (const PathShare& share : launch.path)
    text += share.thread.name + " " + share.doing + " " + std::to_string(share.ns / kMs) + ", ";
  return text;
}

/// The application reads a file behind somebody who has the disk write: none of that is computing of its own.
TEST(LaunchVerdict, NamesWhoKeptTheDiskBusyAndNotTheLaunchsOwnCpuTime) {
  MadeUpMachine machine = launching();
  for (uint64_t ms = 1'900; ms < 1'950; ms += 10) machine.request(kHog, ms, ms + 5'000, 'W');
  machine.switches(2'000, kApp, 'D', 0);
  machine.request(kApp, 2'000, 9'000);
  machine.interruptWakes(9'000, 0, kApp);
  machine.switches(9'001, 0, 'R', kApp);
  const auto [launch, verdict] = machine.launched(gone(), 2'000);
  expectSays(verdict, Cause::disk, "viewer (thread 100) waited for 7.0 of 9.9 s for the disk");
  expectSays(verdict, Cause::disk,
             "of what others are known to have asked of it, most came from 'hog' (pid 200)");
  EXPECT_EQ(verdict.diskRival.value_or(NamedThread{}).tid, kHog);
  EXPECT_EQ(spentMs(verdict, ThreadState::runnable), 0u) << "before it was made it waited for no CPU";
  EXPECT_EQ(phasesOf(launch),
            "fork after 100 (other running), exec after 100 (viewer running), first connection after 800 "
            "(viewer running), end after 9000 (viewer disk), ");
  EXPECT_EQ(pathOf(launch), "viewer disk 7000, viewer running 2899, other running 100, viewer runnable 0, ");
}

TEST(LaunchVerdict, FollowsChildrenWhoseComputingIsTheLaunchsOwn) {
  MadeUpMachine machine = launching();
  machine.makes(1'500, kApp, kChild);
  machine.makes(1'550, kChild, kWorker, /*isThread=*/true);
  machine.switches(1'600, kApp, 'S', kChild);
  machine.wakes(10'400, kChild, kApp);
  machine.switches(10'401, kChild, 'Z', kApp);
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(verdict, Cause::ownCpu,
             "viewer (thread 100) waited for 8.8 of 9.9 s because process 'logger' (pid 102) was computing: "
             "viewer waits for it, its child, to end");
  ASSERT_EQ(launch.processes.size(), 2u);
  EXPECT_EQ(launch.processes[1].pid, kChild);
  EXPECT_EQ(launch.processes[1].parent, kApp);
  EXPECT_EQ(launch.processes[1].threads, 2u);
  EXPECT_EQ(launch.processes[1].runningNs, 8'801 * kMs);
  EXPECT_EQ(launch.processes[1].endedNs, 10'401 * kMs);
}

/// Two steps away, and on the way somebody who is no part of the launch.
TEST(LaunchVerdict, FollowsOthersToWhoeverKeptTheLaunch) {
  MadeUpMachine machine = launching();
  machine.switches(1'500, kApp, 'S', kDatabase);
  machine.switches(1'600, kDatabase, 'S', kHog);
  machine.wakes(9'800, kHog, kDatabase);
  machine.switches(9'800, kHog, 'S', kDatabase);
  machine.wakes(9'900, kDatabase, kApp);
  machine.switches(9'900, kDatabase, 'S', kApp);
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(verdict, Cause::peer, "because process 'hog' (pid 200) was computing");
  EXPECT_EQ(verdict.chain.value_or(ChainVerdict{}).chain.links.size(), 3u);
  EXPECT_EQ(pathOf(launch).substr(0, 17), "hog running 8200,");

  // The same without its making: an earlier recorder does not record that.
  MadeUpMachine old;
  old.switches(9'000, 0, 'R', kApp);
  const auto [unmade, ready] = old.launched(gone());
  EXPECT_EQ(spentMs(ready, ThreadState::runnable), 0u);
  EXPECT_EQ(phasesOf(unmade), "end after 10000, ");
}

/// Whoever is waited for may do several things, none of them for most of the time.
TEST(LaunchVerdict, NamesWhoIsWaitedForThoughThatOneDoesThisAndThat) {
  MadeUpMachine machine = launching();
  machine.switches(1'500, kApp, 'S', kDatabase);
  for (uint64_t ms = 1'500; ms < 9'900; ms += 300) {
    machine.switches(ms + 100, kDatabase, 'S', kHog);
    machine.interruptWakes(ms + 220, kHog, kDatabase);
    machine.switches(ms + 300, kHog, 'R', kDatabase);
  }
  machine.wakes(9'950, kDatabase, kApp);
  machine.switches(9'960, kDatabase, 'S', kApp);
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(verdict, Cause::peer, "because process 'database' (pid 7)");
  EXPECT_EQ(verdict.chain.value_or(ChainVerdict{}).chain.links.size(), 2u);
}

/// None of many short programs is what the script waited for.
TEST(LaunchVerdict, SumsUpWhatManyProcessesDid) {
  MadeUpMachine machine = launching();
  for (int i = 0; i < 40; i++) {
    const int child = 1'000 + i;
    const uint64_t ms = 1'500 + 200 * static_cast<uint64_t>(i);
    machine.names()[child] = "step";
    machine.makes(ms, kApp, child);
    machine.switches(ms, kApp, 'S', child);
    machine.wakes(ms + 180, child, kApp);
    machine.switches(ms + 180, child, 'Z', kApp);
  }
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(
      verdict, Cause::ownCpu,
      "viewer (thread 100) and what it started were busy themselves for all of 9.9 s, most of all 'step' (pid 1000)");
  EXPECT_EQ(launch.processCount, 41u);
}

TEST(LaunchVerdict, DoesNotPutDownToTheLaunchWhatItsLauncherComputes) {
  MadeUpMachine machine;
  machine.switches(900, 0, 'R', kLauncher);
  machine.makes(9'000, kLauncher, kApp);
  machine.switches(9'000, kLauncher, 'S', kApp);
  expectSays(machine.launched(gone()).second, Cause::peer,
             "In 8.0 of 10.0 s of the launch: other (thread 300) was busy itself");
}

/// A script starts the program, which tells the launcher that it is up.
TEST(LaunchVerdict, IsAboutTheLongestStageOnTheWayToWhoEndedIt) {
  MadeUpMachine machine = launching();
  machine.makes(3'000, kApp, kChild);
  machine.switches(3'000, kApp, 'S', kChild);
  machine.executes(3'100, kChild);
  machine.switches(3'200, kChild, 'S', 0);
  machine.interruptWakes(9'500, 0, kChild);
  machine.switches(9'500, 0, 'R', kChild);
  machine.wakes(10'900, kChild, kLauncher);
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(verdict, Cause::sleeping,
             "In 8.0 of 10.0 s of the launch: logger (thread 102) slept for 6.3 of 8.0 s");
  EXPECT_EQ(launch.followed.hungThread, kChild);
  EXPECT_EQ(
      phasesOf(launch),
      "fork after 100 (other running), exec after 100 (viewer running), fork after 1800 (viewer running), "
      "exec after 100 (logger running), end after 7900 (logger sleeping), ");
}

/// A script puts the program into the background and ends, which the launcher hears; what ends the launch
/// isn't recorded.
TEST(LaunchVerdict, IsAboutWhoLivedOnRatherThanWhoSpokeLast) {
  MadeUpMachine machine = launching();
  machine.makes(1'500, kApp, kChild);
  machine.wakes(1'600, kApp, kLauncher);
  machine.switches(1'600, kApp, 'Z', kChild);
  const auto [launch, verdict] = machine.launched(gone());
  expectSays(verdict, Cause::ownCpu, "logger (thread 102) was busy itself");
  EXPECT_EQ(launch.processes[0].endedNs, 1'600 * kMs);
}

/// What made it slow is not in the recording, which began later, but a look at its family tells whose they
/// are.
TEST(LaunchVerdict, KnowsItsProcessesThatAreOlderThanTheRecording) {
  MadeUpMachine machine;
  machine.coveredFrom(3'000);
  machine.switches(3'050, 0, 'R', kWorker, 1);
  machine.switches(3'100, kApp, 'S', kChild);
  machine.switches(9'000, kChild, 'Z', 0);  // its first thread
  machine.wakes(10'900, kWorker, kApp);
  machine.switches(10'901, 0, 'R', kApp);
  LaunchedLook look = gone();
  look.comm = "viewer";
  look.state = 'S';
  EXPECT_EQ(machine.launched(look).second.cause, Cause::peer);
  look.descendants = {{kChild, kApp, {kChild, kWorker}}};
  const auto [launch, verdict] = machine.launched(look);
  expectSays(verdict, Cause::ownCpu, "because thread 'worker' (101) of 'logger' (pid 102) was computing");
  ASSERT_EQ(launch.processes.size(), 2u);
  EXPECT_EQ(launch.processes[1].endedNs, 0u) << "a thread of it runs on";
}

/// The first one's short wait for a disk is not its long one for something else, in which another one waits
/// for it.
TEST(LaunchVerdict, TellsTheWaitsForADiskFromOthersOfTheSameThread) {
  MadeUpMachine machine = launching();
  machine.request(kApp, 1'300, 1'400);
  machine.switches(1'300, kApp, 'D', 0);
  machine.interruptWakes(1'400, 0, kApp);
  machine.switches(1'401, 0, 'R', kApp);
  machine.makes(2'000, kApp, kChild);
  machine.switches(2'001, kApp, 'D', kChild);
  machine.switches(2'002, kChild, 'S', 0);
  machine.wakes(8'999, kHog, kApp);
  machine.switches(9'000, 0, 'R', kApp);
  machine.wakes(9'001, kApp, kChild);
  machine.switches(9'002, kApp, 'S', kChild);
  machine.wakes(10'999, kChild, kLauncher);
  const auto [launch, verdict] = machine.launched(gone());
  EXPECT_STREQ(causeName(verdict.cause), "unknown") << verdict.sentence;
  EXPECT_NE(pathOf(launch).find("viewer uninterruptible 6997"), std::string::npos) << pathOf(launch);
  EXPECT_NE(pathOf(launch).find("viewer disk 100"), std::string::npos) << pathOf(launch);
}

/// Nobody has looked at the launcher, which has not ended, nor is any of several stages the launch.
TEST(LaunchVerdict, ClaimsNothingOfWhomNobodyLookedAt) {
  MadeUpMachine machine;
  machine.switches(1'000, kLauncher, 'D', 0);
  machine.interruptWakes(9'000, 0, kLauncher, 20'000);
  machine.switches(9'030, 0, 'R', kLauncher);
  machine.makes(9'100, kLauncher, kApp);
  machine.switches(9'100, kLauncher, 'S', kApp);
  expectSays(machine.launched(gone()).second, Cause::unknown,
             "other (thread 300) waited for 8.0 of 8.1 s in the kernel");

  MadeUpMachine relay = launching();
  const int runners[] = {kApp, kChild, kWorker, kHog, kDatabase};
  for (size_t i = 1; i < std::size(runners); i++) {
    relay.makes(1'100 + 2'000 * i, runners[i - 1], runners[i]);
    relay.switches(1'100 + 2'000 * i, runners[i - 1], 'Z', runners[i]);
  }
  expectSays(relay.launched(gone()).second, Cause::ownCpu,
             "viewer (thread 100) and what it started were busy themselves for 9.9 of 10.0 s");
}

/// What a process has had in its life tells what did not make its launch slow.
TEST(LaunchVerdict, WithoutARecordingClaimsNoMoreThanALifeTells) {
  MadeUpMachine machine;
  machine.withoutRecorder();
  EXPECT_EQ(
      machine.launched(gone()).second.sentence,
      "Nothing of the launch is recorded: the launched process (pid 100) had ended, and why it took so long "
      "can't be told.");
  LaunchedLook look = gone();
  look.comm = "viewer";
  look.state = 'S';
  look.lookedAtNs = 11'500 * kMs;
  look.madeNs = 1'300 * kMs;
  look.ranNs = 400 * kMs;
  const auto [launch, waited] = machine.launched(look, 8'000);
  expectSays(
      waited, Cause::unknown,
      "viewer (pid 100) has had CPUs for 400 ms in its life, and its children that have ended for 0 ms. So "
      "computing is not what took 10.0 s: it waited, for what can't be told.");
  EXPECT_EQ(phasesOf(launch), "fork after 300, first connection after 6700, end after 3000, ");

  look.descendants = {{kChild, kApp, {kChild}}};  // which may have computed
  expectSays(machine.launched(look).second, Cause::unknown, "Why the launch took 10.0 s can't be told.");

  look.around.schedule = {5'600 * kMs, 0};
  expectSays(machine.launched(look).second, Cause::ownCpu, "on the CPU for at least 5.1 of 10.0 s.");
  look.around.schedule = {5'400 * kMs, 0};  // half a second of it may have come afterwards
  EXPECT_EQ(machine.launched(look).second.cause, Cause::unknown);
  look.madeNs = 100 * kMs;  // a program that is resumed
  look.around.schedule = {6'300 * kMs, 0};
  EXPECT_EQ(machine.launched(look).second.cause, Cause::unknown);
  look.madeNs = 1'300 * kMs;
  look.around.schedule = {0, 5'600 * kMs};
  expectSays(machine.launched(look).second, Cause::starved, "not given a CPU for at least 5.1 of 10.0 s.");
  look.around.schedule = {};
  machine.coveredUntilTheLookFrom(10'900);
  machine.switches(10'950, kApp, 'S', 0);
  expectSays(machine.launched(look).second, Cause::unknown, "Too little of the launch is recorded: viewer");
}

}  // namespace
}  // namespace kelvane
