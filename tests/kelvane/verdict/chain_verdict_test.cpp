#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "tests/kelvane/verdict/made_up_machine.h"

// Whom the verdict names where the hung thread waits for one that waits itself, and where that leads round.

namespace kelvane {
namespace {

TEST(ChainVerdict, TellsTheEndOfAChainFirst) {
  MadeUpMachine machine;
  machine.switches(900, kApp, 'S', kOther);
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.waits(kWorker, WaitKind::lock, kLogger);
  machine.party(kLogger).state = 'R';
  machine.watched(kLogger, 40, 30);
  expectSays(
      machine.verdict(), Cause::lock,
      "viewer (thread 100) waited for all of 10.0 s because thread 'logger' (102) was computing: 'worker' "
      "(101) waits for a lock that it holds, and viewer for one that 'worker' holds.");
  machine.watched(kLogger, 40, 1);
  expectSays(machine.verdict(), Cause::starved, "because thread 'logger' (102) was not given a CPU: ");

  {
    // Without the recorder a further look tells who has that CPU, if somebody has most of it.
    MadeUpMachine unrecorded = machine;
    unrecorded.withoutRecorder();
    unrecorded.isRealTime(kHog);
    unrecorded.rivals = Rivals{"hog", false, 1, kHog, 90, 200};
    expectSays(unrecorded.verdict(), Cause::starved, "because thread 'logger' (102) was not given a CPU: ");
    unrecorded.rivals->ranMs = 150;
    expectSays(unrecorded.verdict(), Cause::priorityInversion,
               "'logger' (102) was not given a CPU, which ran 'hog' (pid 200): ");
  }

  // The recorder knows more than the look.
  machine.switches(1'000, kLogger, 'R', kHog);
  machine.switches(10'900, kHog, 'R', kLogger);
  machine.watched(kLogger, 40, 30);
  expectSays(machine.verdict(), Cause::starved,
             "'logger' (102) was not given a CPU, which ran 'hog' (pid 200): ");
  machine.isRealTime(kHog);
  expectSays(machine.verdict(), Cause::priorityInversion, "'logger' (102) was not given a CPU");

  machine.party(kLogger).state = 'T';
  expectSays(machine.verdict(), Cause::stopped, "because thread 'logger' (102) was stopped: ");
  machine.waits(kWorker, WaitKind::child, kHog, "end");
  machine.party(kHog).state = 'Z';
  expectSays(machine.verdict(), Cause::child,
             "because process 'hog' (pid 200) has ended: 'worker' (101) waits for it, its child, to end");
}

TEST(ChainVerdict, TellsADeadlock) {
  MadeUpMachine machine;
  machine.withoutRecorder();
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.waits(kWorker, WaitKind::lock, kApp);
  machine.watched(kApp, 40, 0);
  expectSays(machine.verdict(), Cause::lock, "because thread 'worker' (101) waited");  // it may have moved
  machine.watched(kWorker, 40, 0);
  expectSays(
      machine.verdict(), Cause::deadlock,
      "viewer (thread 100) waited in a deadlock: it waits for a lock that thread 'worker' (101) holds, and "
      "'worker' for one that viewer holds.");
  machine.waits(kWorker, WaitKind::lock, kLogger);
  machine.waits(kLogger, WaitKind::threadEnd, kWorker);
  machine.watched(kLogger, 40, 0);
  expectSays(
      machine.verdict(), Cause::deadlock,
      "waited because of a deadlock: 'worker' (101) waits for a lock that thread 'logger' (102) holds, and "
      "'logger' waits for 'worker' to end; viewer waits for a lock that 'worker' holds.");
  machine.waits(kApp, WaitKind::lock, kApp);
  expectSays(machine.verdict(), Cause::deadlock,
             "in a deadlock with itself: it waits for a lock that it holds itself.");
}

TEST(ChainVerdict, GuessesWhoIsToEndAWaitThatNobodyOwns) {
  MadeUpMachine machine;
  machine.look().syscall = SystemCall{SYS_futex, {}};
  machine.party(kApp).syscall = machine.look().syscall;
  machine.waitsForSignal(kApp, {kWorker});
  machine.party(kWorker).syscall = SystemCall{SYS_clock_nanosleep, {}};
  // Of two no one stands out, until one computes. One that merely came to be awake doesn't.
  machine.switches(900, kApp, 'S', kOther);
  expectSays(
      machine.verdict(), Cause::lock,
      "waited for all of 10.0 s probably because thread 'worker' (101) slept (clock_nanosleep): viewer "
      "waits for a signal of it.");
  machine.waitsForSignal(kApp, {kWorker, kLogger});
  expectSays(machine.verdict(), Cause::sleeping,
             "slept for all of 10.0 s and waited for another thread (futex)");
  machine.party(kLogger).state = 'R';
  machine.watched(kLogger, 40, 1);
  EXPECT_EQ(machine.verdict().cause, Cause::sleeping);
  machine.watched(kLogger, 40, 30);
  expectSays(machine.verdict(), Cause::lock, "probably because thread 'logger' (102) was computing: ");
  machine.process.waits.waits.front().hasMoreCandidates = true;
  EXPECT_EQ(machine.verdict().cause, Cause::sleeping) << "it may not be the only one";
  machine.waitsForSignal(kApp, {kWorker, kLogger}, WaitKind::peer);
  expectSays(machine.verdict(), Cause::peer, "who keeps it from going on can't be told");
  machine.waitsForSignal(kApp, {kWorker, kLogger});
  machine.waits(kWorker, WaitKind::lock, kHog);
  EXPECT_EQ(machine.verdict().cause, Cause::sleeping) << "two are held up by something";
}

TEST(ChainVerdict, TellsWhereTheLastOneIsWhileItIsThere) {
  MadeUpMachine machine;
  machine.withoutRecorder();
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.party(kWorker).syscall = SystemCall{SYS_clock_nanosleep, {}};
  machine.process.modules = {{"/usr/bin/viewer", ""}, {"/lib/libc.so.6", ""}};
  // A lambda that the compiler has put into the library's function which calls it.
  machine.process.frames = {
      {0, 1, 0, "clock_nanosleep"},
      {0, 0, 0,
       "void std::this_thread::sleep_for<long, std::ratio<1l, 1l> >(std::chrono::duration<long> const&)"},
      {0, 0, 0,
       "std::thread::_State_impl<std::thread::_Invoker<std::tuple<Pool<int>::start(int, "
       "char)::{lambda(int)#1}, int> > >::_M_run()"}};
  machine.process.threads[1].stack = StackSample{11'001 * kMs, 0, {0, 1, 2}, ""};
  machine.watched(kWorker, 40, 0);
  expectSays(machine.verdict(), Cause::lock,
             "slept (clock_nanosleep), in Pool<…>::start(int, char)::{lambda(int)#1} (viewer): viewer waits");
  machine.process.frames[1] = {0, 0, 0, "Log& operator<< <int>(Log&, std::vector<int, Own<int> >)"};
  expectSays(machine.verdict(), Cause::lock, ", in Log& operator<< <int>(Log&, std::vector<…>) (viewer): ");
  machine.process.frames[1].name = "Log::operator()<int>(line[abi:cxx11]<int>)";
  expectSays(machine.verdict(), Cause::lock, ", in Log::operator()<…>(line[abi:cxx11]<…>) (viewer): ");
  machine.process.waits.watches.back().moved = true;
  expectSays(machine.verdict(), Cause::lock, "slept (clock_nanosleep): viewer waits");
}

TEST(ChainVerdict, WhoEndedItsSleepsBeforeIsLikelyToEndThisOne) {
  MadeUpMachine machine;
  machine.party(kWorker).syscall = SystemCall{SYS_clock_nanosleep, {}};
  machine.waitsForSignal(kApp, {kLogger, kWorker});
  const auto sleeps = [&](uint64_t fromMs, int until) {
    machine.switches(fromMs, kApp, 'S', kOther);
    machine.wakes(fromMs + 90, until, kApp);
    machine.switches(fromMs + 91, kOther, 'S', kApp);
  };
  for (const uint64_t fromMs : {100, 200, 300}) sleeps(fromMs, kWorker);
  sleeps(400, kLogger);
  sleeps(500, kHog);  // of another process: it can't end this wait
  machine.switches(900, kApp, 'S', kOther);
  const Verdict verdict = machine.verdict();
  expectSays(verdict, Cause::lock, "probably because thread 'worker' (101) slept (clock_nanosleep)");
  EXPECT_EQ(verdict.chain->chain.links[0].holder->evidence,
            "of its sleeps that a thread of the process has ended before, it ended 3 of 4");
  for (const uint64_t fromMs : {600, 700}) sleeps(fromMs, kLogger);
  EXPECT_EQ(machine.verdict().cause, Cause::sleeping) << "half is not most";

  // One that the look came too late for is known by the list of threads alone.
  for (const uint64_t fromMs : {5, 800}) sleeps(fromMs, kWorker);
  machine.process.waits = {};
  machine.waitsForSignal(kApp, {kLogger, kLogger});
  machine.process.threads[1].facts.state = 'T';
  expectSays(machine.verdict(), Cause::stopped, "probably because thread 'worker' (101) was stopped");
}

TEST(ChainVerdict, TimeOutsAndTriesOfALoopAreOneWait) {
  for (const bool isRetried : {false, true}) {
    MadeUpMachine machine;
    machine.waits(kApp, isRetried ? WaitKind::fileLock : WaitKind::lock, kHog, "the file /db");
    machine.party(kHog).syscall = SystemCall{SYS_clock_nanosleep, {}};
    PartyWait& wait = machine.process.waits.waits.front();
    for (uint64_t fromMs = 100; fromMs < 11'000; fromMs += 100) {
      machine.switches(fromMs, kApp, 'S', kOther);
      machine.event(fromMs + 95, RecordedKind::timeOut, kOther);
      machine.interruptWakes(fromMs + 95, kOther, kApp);
      machine.switches(fromMs + 96, kOther, 'R', kApp);
    }
    EXPECT_EQ(machine.verdict().cause, Cause::sleeping) << "nothing ties those sleeps to the look's";
    wait.isRetried = isRetried;
    wait.timeLeftNs = isRetried ? 0 : 70 * kMs;
    if (isRetried) {
      expectSays(machine.verdict(), Cause::fileLock,
                 "because process 'hog' (pid 200) slept (clock_nanosleep): viewer tries again and again, and "
                 "sleeps in between, for a lock of the file /db that it holds.");
    } else {
      expectSays(machine.verdict(), Cause::lock, "viewer waits for a lock that it holds.");
      wait.timeLeftNs = 400 * kMs;  // longer than any of them
      EXPECT_EQ(machine.verdict().cause, Cause::sleeping);
    }
  }
}

TEST(ChainVerdict, NamesWhoTracesOneThatIsStopped) {
  MadeUpMachine machine;
  machine.look().state = 't';
  machine.party(kApp).state = 't';
  machine.waits(kApp, WaitKind::tracer, kOther);
  machine.party(kOther).syscall = SystemCall{SYS_clock_nanosleep, {}};
  machine.switches(900, kApp, 't', kOther);
  expectSays(machine.verdict(), Cause::stopped,
             "viewer (thread 100) was stopped for all of 10.0 s because process 'other' (pid 300) slept "
             "(clock_nanosleep): viewer is stopped by it, its tracer.");
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.waits(kWorker, WaitKind::tracer, kOther);
  machine.look().state = machine.party(kApp).state = 'S';
  machine.withoutRecorder();
  expectSays(machine.verdict(), Cause::stopped,
             "'worker' (101) is stopped by it, its tracer, and viewer waits");
}

}  // namespace
}  // namespace kelvane
