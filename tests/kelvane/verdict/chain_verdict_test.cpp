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

}  // namespace
}  // namespace kelvane
