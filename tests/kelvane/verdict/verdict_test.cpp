#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include "kelvane/capture/futex_wait.h"
#include "tests/kelvane/verdict/made_up_machine.h"

namespace kelvane {
namespace {

TEST(Verdict, TellsBusyFromStarved) {
  MadeUpMachine busy;
  busy.look().state = 'R';
  busy.switches(900, kOther, 'S', kApp);
  busy.switches(5'000, kApp, 'R', kHog);
  busy.switches(5'400, kHog, 'R', kApp);
  expectSays(busy.verdict(), Cause::ownCpu, "viewer (thread 100) was busy itself: 96 % of 10.0 s on the CPU");
  EXPECT_EQ(spentMs(busy.verdict(), ThreadState::runnable), 400u);

  // The busiest of all had the other CPU: it took nothing away.
  MadeUpMachine starved;
  starved.look().state = 'R';
  starved.switches(500, 0, 'R', kOther, 1);
  starved.switches(1'000, kApp, 'R', kHog);
  starved.switches(9'500, kHog, 'R', kApp);
  Verdict verdict = starved.verdict();
  expectSays(verdict, Cause::starved, "ready to run for 85 % of 10.0 s, but the CPU ran 'hog' (pid 200)");
  ASSERT_EQ(verdict.busiest.size(), 2u);
  EXPECT_EQ(verdict.busiest[0].thread.name, "other");

  MadeUpMachine throttled;
  throttled.look().state = 'R';
  throttled.switches(1'000, kApp, 'R', 0);
  throttled.switches(9'500, 0, 'R', kApp);
  expectSays(throttled.verdict(), Cause::starved, "its CPU was idle");
}

TEST(Verdict, NamesWhatASleeperWaitsFor) {
  MadeUpMachine machine;
  machine.look().waitChannel = "futex_do_wait";
  machine.switches(1'500, kApp, 'S', kOther);
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.party(kWorker).state = 'S';
  machine.party(kWorker).syscall = SystemCall{SYS_clock_nanosleep, {}};
  Verdict lock = machine.verdict();
  expectSays(
      lock, Cause::lock,
      "waited for 9.5 of 10.0 s because thread 'worker' (101) slept (clock_nanosleep): viewer waits for a "
      "lock that it holds.");
  ASSERT_EQ(lock.waits.size(), 1u);
  EXPECT_EQ(lock.waits[0].waitChannel, "futex_do_wait");
  EXPECT_EQ(lock.waits[0].fromNs, 1'500 * kMs);

  // The hang is over by the time of the look: what the thread waits for now is something else.
  machine.waits(kApp, WaitKind::lock, kLogger);
  machine.wakes(10'900, kWorker, kApp);
  machine.switches(10'901, kOther, 'S', kApp);
  Verdict over = machine.verdict();
  expectSays(over, Cause::sleeping, "slept for 9.4 of 10.0 s until it was woken by its own thread 'worker'.");
  EXPECT_EQ(over.waits[0].wokenBy.value_or(NamedThread{}).name, "worker");
  EXPECT_FALSE(over.chain);
}

TEST(Verdict, TellsDiskMemoryStopAndSuspend) {
  MadeUpMachine disk;
  disk.look().state = 'D';
  disk.switches(900, kApp, 'D', 0);
  for (uint64_t ms = 1'000; ms < 9'000; ms += 1'000) disk.request(kApp, ms, ms + 900);
  Verdict verdict = disk.verdict();
  expectSays(verdict, Cause::disk,
             "all of 10.0 s for the disk (the slowest request that it waited for took 900.0 ms; "
             "the system had 8 requests: 3.8 MB read");
  const DiskActivity activity = verdict.disk.value_or(DiskActivity{});
  EXPECT_EQ(activity.busyNs, 7'200 * kMs);
  EXPECT_EQ(activity.slowestNs, 900 * kMs);
  disk.pressure.memory = PressureLine{60, 40};
  disk.event(9'999, RecordedKind::fileFault, kApp);
  expectSays(disk.verdict(), Cause::memory, "read back in (1 page)");

  // What the kernel computes to read it back in is none of the program's computing.
  MadeUpMachine paging;
  paging.coveredFrom(9'900);
  paging.pressure.memory = PressureLine{60, 40};
  for (uint64_t ms = 9'900; ms < 11'000; ms += 100) {
    paging.switches(ms, 0, 'R', kApp);
    paging.event(ms + 1, RecordedKind::fileFault, kApp);
    paging.switches(ms + 60, kApp, 'D', 0);
    paging.interruptWakes(ms + 99, 0, kApp);
  }
  expectSays(paging.verdict(), Cause::ownCpu, "was busy itself");
  for (uint64_t i = 0; i < 30'000; i++)
    paging.event(9'900 + i % 11 * 100 + i % 60, RecordedKind::fileFault, kApp);
  expectSays(paging.verdict(), Cause::memory, "read back in (30011 pages)");

  MadeUpMachine dead;  // one request that never comes back
  dead.switches(900, kApp, 'D', 0);
  dead.request(kApp, 1'000, 0, 'W');
  dead.look().state = 'D';
  expectSays(dead.verdict(), Cause::disk, "waited for took 10.0 s; the system had 1 request:");

  MadeUpMachine kernel;
  kernel.look().state = 'D';
  kernel.look().waitChannel = "kernel_clone";
  kernel.switches(900, kApp, 'D', 0);
  for (uint64_t ms = 1'000; ms < 11'000; ms++) kernel.request(kOther, ms, ms + 1);
  expectSays(kernel.verdict(), Cause::child, "for a child that it had made by vfork");

  MadeUpMachine stopped;
  stopped.event(2'000, RecordedKind::signal, kApp, kOther).value = SIGSTOP;
  stopped.switches(2'000, kApp, 'T', 0);
  expectSays(stopped.verdict(), Cause::stopped,
             "for 9.0 of 10.0 s by the signal SIGSTOP from 'other' (pid 300)");
  stopped.look().tracerPid = 5;
  expectSays(stopped.verdict(), Cause::stopped, "by a debugger (tracer pid 5)");

  MadeUpMachine suspended;
  suspended.event(2'000, RecordedKind::suspendBegin, kOther);
  suspended.event(8'000, RecordedKind::suspendEnd, kOther);
  expectSays(suspended.verdict(), Cause::suspended, "for 6.0 of 10.0 s of the hang");

  MadeUpMachine reclaiming;
  reclaiming.switches(500, kOther, 'S', kApp);
  reclaiming.event(2'000, RecordedKind::reclaimBegin, kApp);
  expectSays(reclaiming.verdict(), Cause::memory, "free memory itself for 9.0 of 10.0 s");
}

TEST(Verdict, CallsADiskWhatEndsWithARequestOfItsOwn) {
  // Another process keeps the disk busy; the wait ends with a request that was quick, long held back.
  MadeUpMachine limited;
  limited.look().state = 'R';
  limited.switches(1'000, kApp, 'D', 0);
  for (uint64_t ms = 1'000; ms < 10'000; ms += 200) limited.request(kOther, ms, ms + 100);
  limited.request(kApp, 9'999, 10'000);
  limited.interruptWakes(10'000, kHog, kApp);
  limited.switches(10'001, 0, 'R', kApp);
  expectSays(limited.verdict(), Cause::unknown, "something held back its requests");
  limited.after.limits.diskLimit = "/app";
  expectSays(limited.verdict(), Cause::throttled,
             "9.0 of 10.0 s because the disk I/O of its control group /app is limited");

  // Its own was as long as the wait: one of the many that were issued.
  MadeUpMachine own;
  own.look().state = 'R';
  own.switches(1'000, kApp, 'D', 0);
  own.request(kOther, 1'001, 9'999, 'W');
  own.interruptWakes(9'999, 0, kApp);
  own.switches(10'001, 0, 'R', kApp);
  Verdict verdict = own.verdict();
  expectSays(
      verdict, Cause::disk,
      "took 9.0 s; of what others are known to have asked of it, most came from 'other' (pid 300); the "
      "system had 1 request");
  EXPECT_EQ(verdict.waits[0].end, SleepEnd::disk);
  EXPECT_FALSE(verdict.waits[0].wokenBy);

  // A journal's thread brings the request back; a lock's holder had a request of its own, and nothing to do
  // with the sleeper's.
  for (const bool isJournal : {true, false}) {
    MadeUpMachine helped;
    helped.look().state = 'R';
    helped.names()[kOther] = isJournal ? "jbd2/vda-8" : "server";
    helped.switches(1'000, kApp, 'D', kOther);
    helped.request(kOther, 1'001, 9'000, 'W');
    helped.switches(1'002, kOther, 'D', 0);
    helped.interruptWakes(9'000, 0, kOther);
    helped.switches(9'001, 0, 'R', kOther);
    helped.wakes(9'002, kOther, kApp);
    helped.switches(9'003, kOther, 'S', kApp);
    expectSays(helped.verdict(), isJournal ? Cause::disk : Cause::unknown,
               isJournal ? "for the disk" : "the longest time until 'server' (pid 300) woke it");
  }

  MadeUpMachine frozen;
  frozen.switches(900, kApp, 'D', 0);
  frozen.request(kApp, 901, 0);
  frozen.look().state = 'D';
  frozen.look().waitChannel = "__refrigerator";
  frozen.after.limits.frozen = "/app";
  expectSays(frozen.verdict(), Cause::frozen, "was frozen for all of 10.0 s with its control group /app");
  frozen.withoutRecorder();
  expectSays(frozen.verdict(), Cause::frozen, "was frozen with its control group /app");
  frozen.look().waitChannel = "folio_wait_bit_common";
  frozen.look().kernelStack = {"folio_wait_bit_common+0x1/0x2", "fuse_file_read_iter+0x1/0x2"};
  frozen.after.limits = {};
  expectSays(frozen.verdict(), Cause::server, "for the server of a file system (folio_wait_bit_common)");
  frozen.look().kernelStack.clear();
  frozen.after.limits.diskLimit = "/app";
  expectSays(frozen.verdict(), Cause::disk,
             "unless the file lies elsewhere; the disk I/O of its control group /app is limited");
}

TEST(Verdict, WithoutAProcessTellsWhoHadTheDisksAndTheCpus) {
  MadeUpMachine launch;
  launch.process = {};
  launch.switches(2'000, 0, 'R', kHog);
  launch.switches(5'000, kHog, 'S', 0);
  for (uint64_t ms = 3'000; ms < 9'000; ms += 1'000) launch.request(kDatabase, ms, ms + 900, 'W');
  launch.request(kOther, 3'500, 4'500);
  expectSays(
      launch.verdict(), Cause::unknown,
      "There is no process to judge by; the disks were busy for 5.5 of 10.0 s, most of all for 'database' "
      "(pid 7); most of the CPU time went to 'hog' (pid 200): ");
  // A request or two keep nobody waiting for long.
  MadeUpMachine idle;
  idle.process = {};
  idle.switches(2'000, 0, 'R', kHog);
  idle.request(kDatabase, 3'000, 3'900);
  EXPECT_EQ(idle.verdict().sentence.find("disk"), std::string::npos) << idle.verdict().sentence;
}

TEST(Verdict, SumsUpWhoEndedManySleeps) {
  auto sleeping = [](MadeUpMachine& machine, auto&& ends) {
    for (uint64_t ms = 1'000; ms < 11'000; ms += 200) {
      machine.switches(ms, kApp, 'S', 0);
      ends(ms + 190);
      machine.switches(ms + 191, 0, 'R', kApp);
    }
  };
  MadeUpMachine lock;  // each time for the one that the look finds to hold it
  lock.waits(kApp, WaitKind::lock, kWorker);
  lock.party(kWorker).state = 'R';
  sleeping(lock, [&](uint64_t ms) { lock.wakes(ms, kWorker, kApp); });
  expectSays(lock.verdict(), Cause::lock,
             "waited for 9.5 of 10.0 s because thread 'worker' (101) was computing");

  MadeUpMachine others;  // the look finds something else than what kept it
  others.waits(kApp, WaitKind::peer, kDatabase, "a pipe");
  others.look().syscall = SystemCall{SYS_read, {}};
  sleeping(others, [&](uint64_t ms) {
    if (ms % 1'000 < 200) {
      others.interruptWakes(ms, kHog, kApp);
    } else {
      others.wakes(ms, kOther, kApp);
    }
  });
  Verdict verdict = others.verdict();
  expectSays(
      verdict, Cause::sleeping,
      "in 50 sleeps that were ended by 'other' (pid 300) (7.6 s of it) and interrupts of a device, the network or a "
      "clock (1.9 s of it); at the look it slept in the system call read");
  ASSERT_EQ(verdict.wakers.size(), 2u);
  EXPECT_EQ(verdict.wakers[0].sleeps, 40u);

  MadeUpMachine retries;
  retries.look().syscall = SystemCall{SYS_clock_nanosleep, {}};
  sleeping(retries, [&](uint64_t ms) {
    retries.event(ms, RecordedKind::timeOut, kHog);
    retries.interruptWakes(ms, kHog, kApp);
  });
  expectSays(retries.verdict(), Cause::sleeping,
             "in 50 sleeps that were ended by time-outs of its own (9.5 s of it)");
  // Polling a peer with a time-out is one long wait for it.
  retries.waits(kApp, WaitKind::peer, kDatabase, "a pipe");
  retries.look().syscall = SystemCall{SYS_epoll_pwait, {3, 0, 1, 190}};
  expectSays(retries.verdict(), Cause::peer,
             "waited for 9.5 of 10.0 s because process 'database' (pid 7) waited");
  retries.look().syscall = SystemCall{SYS_epoll_pwait, {3, 0, 1, 5'000}};  // what it does now is another wait
  expectSays(retries.verdict(), Cause::sleeping, "time-outs");

  MadeUpMachine late;  // the network's interrupt comes long after the timer's, upon the same bystander
  late.look().state = 'R';
  late.switches(1'000, kApp, 'S', kHog);
  late.event(10'000, RecordedKind::timeOut, kHog);
  late.interruptWakes(10'000, kHog, kApp, 400);
  late.switches(10'001, kHog, 'R', kApp);
  expectSays(late.verdict(), Cause::sleeping, "until it was woken by an interrupt of a device");
}

TEST(Verdict, TellsOfEveryLongPhase) {
  MadeUpMachine machine;
  machine.look().syscall = SystemCall{SYS_futex, {}};
  machine.switches(1'000, kOther, 'S', kApp);
  machine.switches(7'000, kApp, 'S', 0);
  Verdict verdict = machine.verdict();
  expectSays(
      verdict, Cause::ownCpu,
      "was busy itself: 60 % of 10.0 s on the CPU; it also slept for 4.0 of 10.0 s and waited for another");
  ASSERT_EQ(verdict.phases.size(), 2u);
  EXPECT_EQ(verdict.phases[1].ns, 4'000 * kMs);
}

TEST(Verdict, WhatTheKernelComputesForADiskIsTheDisks) {
  for (const uint64_t waitMs : {500, 400}) {
    MadeUpMachine machine;
    machine.look().state = 'R';
    machine.look().userMs = 70'000;  // in its life: what it did in the hang may be anything
    machine.after.systemTicks = 10;
    machine.after.userTicks = 5;
    for (uint64_t fromMs = 900; fromMs < 11'000; fromMs += 1'000) {
      machine.request(kApp, fromMs, fromMs + waitMs - 10);
      machine.switches(fromMs, kApp, 'D', kOther);
      machine.interruptWakes(fromMs + waitMs - 10, kOther, kApp);
      machine.switches(fromMs + waitMs - 9, kOther, 'R', kApp);
    }
    if (waitMs == 400) {
      expectSays(machine.verdict(), Cause::ownCpu, "was busy itself: ");
    } else {
      expectSays(machine.verdict(), Cause::disk, "; it also was busy itself: ");
      machine.after.userTicks = 10;
      expectSays(machine.verdict(), Cause::ownCpu, "was busy itself: ");
    }
  }
}

TEST(Verdict, BlamesALimitOnlyForWhatItMayHaveDone) {
  MadeUpMachine machine;  // bystanders have the CPUs while the group is held back
  machine.look().state = 'R';
  machine.switches(1'000, kApp, 'R', kHog);
  machine.names()[kOther] = machine.names()[kHog] = "loader";
  machine.switches(3'000, kHog, 'R', kOther);
  machine.after.limits.quota = GroupLimits::Quota{"/app", 0.04, 9'000 * kMs, {kApp, kOther}};
  machine.before = machine.after;
  expectSays(
      machine.verdict(), Cause::starved,
      "the CPU ran 2 threads named 'loader', such as pid 300; the CPU limit of its control group /app may");
  machine.before.limits.quota->throttledNs -= 100 * kMs;
  expectSays(
      machine.verdict(), Cause::throttled,
      "ready to run for 100 % of 10.0 s, but its control group /app may use no more than 4 % of a CPU, which it shares with others: 'loader' (pid 300) ran for 8.0 s");
  machine.before.limits.quota->throttledNs = 0;
  machine.after.limits.quota->throttledNs = 100 * kMs;  // in its whole life
  expectSays(machine.verdict(), Cause::starved, "such as pid 300.");
}

TEST(Verdict, IsAsCautiousAsItsEvidence) {
  MadeUpMachine machine;
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
  machine.look().userMs = 9'000;
  expectSays(machine.verdict(), Cause::ownCpu, "busy itself");
  auto lives = [&](uint64_t ranMs, uint64_t waitedMs, uint64_t ranAtLookMs, uint64_t waitedAtLookMs) {
    machine.before.schedule = ScheduleFigures{ranMs * kMs, waitedMs * kMs};
    machine.after.schedule = ScheduleFigures{(ranMs + ranAtLookMs) * kMs, (waitedMs + waitedAtLookMs) * kMs};
  };
  lives(300, 9'000, 0, 0);
  machine.rivals = rivalsOf(kApp,
                            {{kApp, "viewer", true, 1, 300},
                             {kHog, "hog", false, 1, 50},
                             {kOther, "hog", false, 1, 50},
                             {7, "elsewhere", false, 0, 0},
                             {8, "quiet", false, 1, 10}},
                            {{kApp, "viewer", true, 1, 300},
                             {kHog, "hog", false, 1, 130},
                             {kOther, "hog", false, 1, 150},
                             {7, "elsewhere", false, 0, 200},
                             {8, "quiet", false, 1, 20},
                             {9, "new", false, 1, 900}},
                            200);
  expectSays(
      machine.verdict(), Cause::starved,
      "in its life has waited 9.0 s for a CPU and had one for 300 ms; for 180 of 200 ms right after the look its CPU "
      "ran 2 processes named 'hog', such as pid 300.");
  EXPECT_FALSE(rivalsOf(kApp, {{kApp, "viewer", true, 1, 0}, {7, "x", false, 1, 0}},
                        {{kApp, "viewer", true, 1, 0}, {7, "x", false, 1, 20}}, 200));
  lives(9'000, 300, 0, 40);
  expectSays(machine.verdict(), Cause::ownCpu, "busy itself");
  lives(70'000, 90'000, 10, 30);
  expectSays(machine.verdict(), Cause::starved, "");
  lives(70'000, 90'000, 30, 10);
  expectSays(machine.verdict(), Cause::ownCpu, "");
  lives(300, 300, 10, 30);  // it slept through most of the hang
  expectSays(machine.verdict(), Cause::unknown,
             "was awake at the look, but has not been in its life for half as long");
  machine.before.thread = machine.after.thread = kApp;
  machine.after.majorFaults = 200;
  machine.after.systemTicks = 10;
  expectSays(machine.verdict(), Cause::disk,
             "had pages read in again and again, from a disk unless they lay elsewhere.");
  lives(9'000, 300, 40, 0);
  EXPECT_EQ(machine.verdict().cause, Cause::disk) << "most of that was the kernel's time";
  machine.after.userTicks = 20;
  EXPECT_EQ(machine.verdict().cause, Cause::ownCpu);
  machine.before.limits.memory = GroupLimits::Memory{"/small", 41'943'040, 10, 10};
  machine.after.limits.memory = GroupLimits::Memory{"/small", 41'943'040, 11, 900};
  lives(9'000, 300, 40, 0);
  expectSays(machine.verdict(), Cause::memory,
             "again and again: its control group /small is at its limit of 40.0 MB");
  machine.before.majorFaults = 195;
  expectSays(machine.verdict(), Cause::ownCpu, "busy itself");
  machine.process = {};
  expectSays(machine.verdict(), Cause::unknown, "no process");
}

TEST(Verdict, ReadsMutexesPressureAndLimits) {
  const auto owner = [](std::array<uint32_t, 6> words, uint32_t expected = 2, bool shared = false) {
    const FutexOwner found = ownerOfFutex({0, shared ? 0u : 128u, expected, words})
                                 .value_or(FutexOwner{WaitKind::signal, 0, 0, ""});
    return std::pair(found.kind, found.tid);
  };
  const std::pair nobody{WaitKind::signal, 0};
  EXPECT_EQ(owner({2, 0, 4711, 1, 0}), std::pair(WaitKind::lock, 4711));                // glibc, contended
  EXPECT_EQ(owner({1, 0, 4711, 1, 0}), nobody);                                         // nobody waits
  EXPECT_EQ(owner({2, 0, 4711, 1, 0x7f001234}), nobody);                                // no mutex's kind
  EXPECT_EQ(owner({0x80000000 | 4711, 0, 0, 0, 32}), std::pair(WaitKind::lock, 4711));  // priority-inheriting
  EXPECT_EQ(owner({3, 1, 0, 0, 4711, 0}, 3), std::pair(WaitKind::readWriteLock, 4711));  // a reader waits
  EXPECT_EQ(owner({3, 0, 0, 4711, 0, 0}, 3), std::pair(WaitKind::readWriteLock, 4711));  // a writer does
  EXPECT_EQ(owner({2, 1, 0, 0, 0, 0}), std::pair(WaitKind::readers, 0));
  EXPECT_EQ(owner({4711, 0}, 4711, true), std::pair(WaitKind::threadEnd, 4711));
  EXPECT_EQ(owner({4711, 0}, 4711), nobody);  // a counter
  EXPECT_EQ(ownerOfStream({0, 128, 2, {2, 1, 0x40, 0x7f}}).value_or(FutexOwner{}).threadStruct,
            0x7f00000040u);
  EXPECT_FALSE(ownerOfStream({0, 128, 2, {2, 1, 0x41, 0x7f}}));
  const PressureLine line =
      parsePressure(
          "some avg10=30.47 avg60=8.51 avg300=4.36 total=2804470008\nfull avg10=1.50 avg60=0 total=0\n")
          .value_or(PressureLine{});
  EXPECT_DOUBLE_EQ(line.some10, 30.47);
  EXPECT_DOUBLE_EQ(line.full10.value_or(0), 1.5);
  EXPECT_FALSE(parsePressure("some avg10=-1 "));
  EXPECT_EQ(parseSchedstat("168833 6324995 2\n").value_or(ScheduleFigures{}).waitedNs, 6'324'995u);
  EXPECT_FALSE(parseSchedstat("168833\n"));
  constexpr std::string_view kGroups = "4:cpu,cpuacct:/a\n2:name=systemd:/b\n1:cpuset:/c\n0::/d\n";
  EXPECT_EQ(parseGroupPath(kGroups, "cpuacct"), "/a");
  EXPECT_EQ(parseGroupPath(kGroups, ""), "/d");
  EXPECT_FALSE(parseGroupPath(kGroups, "memory"));
  EXPECT_EQ(parseGroupNumber("nr_periods 38\nnr_throttled 3\n", "nr_throttled"), 3u);
  EXPECT_FALSE(parseGroupNumber("nr_periods -1\n", "nr_periods"));
  EXPECT_FALSE(parsePressure(""));
}

}  // namespace
}  // namespace kelvane
