#include "platform/linux/processes/process_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <semaphore>
#include <sstream>
#include <string>
#include <thread>

#include "platform/linux/processes/procfs_parse.h"
#include "tests/linux/processes/child_process.h"
#include "tests/sim/sim_platform.h"

/// clone(2) by the C library's other name for it, which no sanitizer takes over: ThreadSanitizer's way across
/// it can't tell that the child has the parent's memory, and ends both.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace quorveld::linux_platform {
namespace {

using platform::rusage_info_v3;
using sim::LogLine;
using sim::SimPlatform;

constexpr uint64_t kTicksPerClockTick = 240'000;  // 10 ms of the 24 MHz clock
constexpr uint64_t kTicksPerMs = 24'000;

enum class Way { taskWalk, taskIterator, procfs };

std::string read(int32_t pid, const std::string& file) {
  std::stringstream text;
  text << std::ifstream("/proc/" + std::to_string(pid) + "/" + file).rdbuf();
  return text.str();
}

uint64_t sumOfClasses(const rusage_info_v3& usage) {
  return usage.cpu_time_qos_default + usage.cpu_time_qos_maintenance + usage.cpu_time_qos_background +
         usage.cpu_time_qos_utility + usage.cpu_time_qos_legacy + usage.cpu_time_qos_user_initiated +
         usage.cpu_time_qos_user_interactive;
}

/// The process table read in each of the three ways, whichever of them there are here.
class ProcessTable : public testing::TestWithParam<Way> {
 protected:
  void SetUp() override {
    if (getpriority(PRIO_PROCESS, 0) != 0 && setpriority(PRIO_PROCESS, 0, 0) != 0)
      GTEST_SKIP() << "these tests run at nice " << getpriority(PRIO_PROCESS, 0) << ", and may not change it";
    std::string why;
    std::unique_ptr<ProcessSource> source;
    switch (GetParam()) {
      case Way::taskWalk:
        source = openBpfSource(BpfPass::taskWalk, why);
        break;
      case Way::taskIterator:
        source = openBpfSource(BpfPass::taskIterator, why);
        break;
      case Way::procfs:
        source = openProcfsSource(why);
        break;
    }
    if (!source) GTEST_SKIP() << why;
    tables_ = std::make_unique<LinuxProcessTables>(std::move(source));
  }

  std::map<int32_t, rusage_info_v3> look() {
    const std::unique_ptr<platform::ProcessTable> table = tables_->look();
    std::vector<int32_t> pids(static_cast<size_t>(table->listBytes()) / sizeof(int32_t));
    EXPECT_EQ(table->list(pids.data(), table->listBytes()), table->listBytes());
    std::map<int32_t, rusage_info_v3> all;
    for (const int32_t pid : pids) EXPECT_EQ(table->usage(pid, &all[pid]), 0) << pid;
    return all;
  }
  rusage_info_v3 look(const ChildProcess& child) { return look()[child.pid()]; }
  std::string nameOf(int32_t pid, size_t sizeBytes = 32) {
    std::string name(sizeBytes, '\0');
    name.resize(static_cast<size_t>(tables_->look()->name(pid, name.data(), name.size())));
    return name;
  }

  /// Everything that /proc tells, within one clock tick.
  void expectAsInProc(int32_t pid, const rusage_info_v3& usage) {
    SCOPED_TRACE(read(pid, "comm") + read(pid, "stat"));
    const std::string text = read(pid, "stat");
    const ProcfsStat stat = parseStat(text).value_or(ProcfsStat{});
    ASSERT_NE(stat.startTicks, 0u);
    EXPECT_NEAR(usage.user_time, stat.userTicks * kTicksPerClockTick, kTicksPerClockTick);
    EXPECT_NEAR(usage.system_time, stat.systemTicks * kTicksPerClockTick, kTicksPerClockTick);
    EXPECT_NEAR(usage.child_user_time, stat.childUserTicks * kTicksPerClockTick, kTicksPerClockTick);
    EXPECT_NEAR(usage.child_system_time, stat.childSystemTicks * kTicksPerClockTick, kTicksPerClockTick);
    EXPECT_NEAR(usage.proc_start_abstime, stat.startTicks * kTicksPerClockTick, kTicksPerClockTick);
    EXPECT_EQ(usage.pageins, stat.majorFaults);
    EXPECT_EQ(usage.child_pageins, stat.childMajorFaults);
    EXPECT_NEAR(sumOfClasses(usage), usage.user_time + usage.system_time, 8);  // 7 roundings
    const ProcfsStatus status = parseStatus(read(pid, "status"));
    EXPECT_EQ(usage.resident_size, status.residentKb * 1024);
    EXPECT_EQ(usage.phys_footprint, (status.anonymousKb + status.swappedKb + status.hugeKb) * 1024);
    EXPECT_EQ(usage.wired_size, status.lockedKb * 1024);
    const ProcfsIo io = parseIo(read(pid, "io"));
    EXPECT_EQ(usage.diskio_bytesread, io.readBytes);
    EXPECT_EQ(usage.diskio_byteswritten, io.writeBytes);
  }

  SimPlatform platform_;  // takes the log's lines
  std::unique_ptr<LinuxProcessTables> tables_;
};

void writeAndReadBack() {
  char path[] = "/var/tmp/quorveld-io-XXXXXX";
  const int file = mkstemp(path);
  unlink(path);
  constexpr size_t kBytes = size_t{2} << 20;
  const std::string data(kBytes, 'x');
  if (::write(file, data.data(), data.size()) < 0) return;
  fsync(file);
  posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  const auto* mapped =
      static_cast<const volatile char*>(mmap(nullptr, kBytes, PROT_READ, MAP_SHARED, file, 0));
  if (mapped != MAP_FAILED) (void)mapped[kBytes / 2];  // a major fault
}

/// Starts a thread of this nice level that spends CPU time and then sleeps; returns when it is about to.
void startSleepingThread(int cpuMs, int nice = 0) {
  std::binary_semaphore spent(0);
  std::thread([cpuMs, nice, &spent] {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice);
    burn(cpuMs);
    spent.release();
    for (;;) pause();
  }).detach();
  spent.acquire();
}

TEST_P(ProcessTable, AgreesWithProcOnBusyThreadedShortLivedAndDiskBoundProcesses) {
  const ChildProcess busy({[] {
    burn(150);
    for (int i = 0; i < 20'000; ++i) (void)getppid(), (void)!access("/nowhere", R_OK);
  }});
  const ChildProcess short_lived({[] {
    for (int i = 0; i < 4; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        burn(20);
        _exit(0);
      }
      waitpid(pid, nullptr, 0);
    }
    std::thread([] { burn(50); }).join();  // its time is the process's from here on
  }});
  const ChildProcess disk({[] {
    std::thread(writeAndReadBack).join();
    writeAndReadBack();
    std::string locked(100'000, 'x');
    syscall(SYS_mlock, locked.data(), locked.size());  // the sanitizers make the C library's do nothing
    prctl(PR_SET_NAME, "a) R (1\nb");
  }});
  // Threads of two processes with ids in turn: the one kernel pass that goes by thread id meets them mixed.
  const ChildProcess::Steps threads(3, [] { startSleepingThread(20); });
  const ChildProcess threaded(threads);
  const ChildProcess mixed(threads);
  for (size_t i = 0; i < threads.size(); ++i) {
    threaded.step();
    mixed.step();
  }
  for (const ChildProcess* child : {&busy, &short_lived, &disk}) child->step();

  auto usage = look();
  for (const ChildProcess* child : {&busy, &short_lived, &disk, &threaded, &mixed}) {
    ASSERT_TRUE(usage.contains(child->pid()));
    expectAsInProc(child->pid(), usage[child->pid()]);
  }
  EXPECT_GE(usage[busy.pid()].user_time + usage[busy.pid()].system_time, 140 * kTicksPerMs);
  EXPECT_GE(usage[threaded.pid()].cpu_time_qos_legacy, 40 * kTicksPerMs);
  EXPECT_GE(usage[short_lived.pid()].child_user_time + usage[short_lived.pid()].child_system_time,
            70 * kTicksPerMs);
  EXPECT_GE(usage[disk.pid()].wired_size, 100'000u);

  EXPECT_EQ(nameOf(disk.pid()), "a) R (1\nb");
  EXPECT_EQ(nameOf(disk.pid(), 4), "a) ");
  errno = 0;
  EXPECT_EQ(nameOf(0x7FFFFFFF), "");
  EXPECT_EQ(errno, ESRCH);
  if (usage.contains(2)) {
    EXPECT_EQ(nameOf(2), "kthreadd");
    EXPECT_EQ(usage[2].resident_size, 0u);
    EXPECT_NEAR(usage[2].cpu_time_qos_default, usage[2].user_time + usage[2].system_time, 2);
  }
}

constexpr size_t kHeldBytes = size_t{24} << 20;

void holdMemory() {
  void* memory = mmap(nullptr, kHeldBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory != MAP_FAILED) std::memset(memory, 1, kHeldBytes);
}

[[noreturn]] int sleepForever(void*) {
  for (;;) syscall(SYS_pause);
}

TEST_P(ProcessTable, MemoryIsFoundWithoutAMainThreadAndCountedOnceWhereProcessesShareIt) {
  const ChildProcess headless({[] {
    holdMemory();
    startSleepingThread(0);
    syscall(SYS_exit, 0);  // this thread alone
  }});
  headless.begin();
  auto* twin = static_cast<std::atomic<pid_t>*>(
      mmap(nullptr, sizeof(std::atomic<pid_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(twin, MAP_FAILED);
  const ChildProcess parent({[twin] {
    holdMemory();
    static std::array<char, 65536> stack;
    *twin = __clone(sleepForever, stack.data() + stack.size(), CLONE_VM | SIGCHLD, nullptr);
  }});
  parent.step();
  const auto endedMainThread = [&] {
    return read(headless.pid(), "status").find("State:\tZ") != std::string::npos;
  };
  for (int i = 0; i < 10'000 && !endedMainThread(); ++i) usleep(10'000);

  const auto all = look();
  EXPECT_TRUE(all.contains(headless.pid()) && all.contains(parent.pid()) && all.contains(*twin));
  EXPECT_GE(all.at(headless.pid()).phys_footprint, kHeldBytes);
  EXPECT_GE(all.at(headless.pid()).resident_size, kHeldBytes);
  EXPECT_GE(all.at(parent.pid()).phys_footprint, kHeldBytes);
  EXPECT_EQ(all.at(*twin).phys_footprint, 0u);
  kill(*twin, SIGKILL);
  munmap(twin, sizeof(*twin));
}

/// CPU time of the process's threads but the main one; by /proc/PID/task/TID/schedstat, which is in ns.
uint64_t otherThreadsTicks(pid_t pid) {
  uint64_t ns = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string tid = task.path().filename();
    if (tid != std::to_string(pid))
      ns += std::strtoull(read(pid, "task/" + tid + "/schedstat").c_str(), nullptr, 10);
  }
  return ns * kTicksPerMs / 1'000'000;
}

TEST_P(ProcessTable, TimeGoesToTheClassThatAThreadHoldsWhenLookedAt) {
  const ChildProcess child({
      [] { burn(60); },
      [] { burn(40), setpriority(PRIO_PROCESS, 0, 12); },
      [] { burn(60); },
      [] {
        sched_param none{};
        sched_setscheduler(0, SCHED_IDLE, &none);
        std::thread([] { burn(60); }).join();
      },
  });
  std::vector<rusage_info_v3> looks{look(child)};
  for (int i = 0; i < 4; ++i) {
    child.step();
    looks.push_back(look(child));
    EXPECT_GE(looks[i + 1].user_time, looks[i].user_time);
    EXPECT_GE(looks[i + 1].system_time, looks[i].system_time);
  }
  const uint64_t tick = kTicksPerClockTick;
  EXPECT_NEAR(looks[1].cpu_time_qos_legacy, 60 * kTicksPerMs, 2 * tick);
  // ThreadSanitizer has a thread of its own in the child, at nice 0, which runs the more the longer this
  // takes.
  const uint64_t kRounding = 8;
  const uint64_t others = otherThreadsTicks(child.pid()) + kRounding;
  EXPECT_NEAR(looks[2].cpu_time_qos_legacy, looks[1].cpu_time_qos_legacy, others);
  EXPECT_NEAR(looks[2].cpu_time_qos_background, 40 * kTicksPerMs, 2 * tick);
  EXPECT_NEAR(looks[3].cpu_time_qos_background, 100 * kTicksPerMs, 2 * tick);
  EXPECT_NEAR(looks[4].cpu_time_qos_maintenance, 60 * kTicksPerMs, 2 * tick);  // of a thread that has ended
  EXPECT_NEAR(looks[4].cpu_time_qos_legacy, looks[1].cpu_time_qos_legacy, others);
  EXPECT_EQ(looks[4].cpu_time_qos_background, looks[3].cpu_time_qos_background);
  EXPECT_NEAR(sumOfClasses(looks[4]), looks[4].user_time + looks[4].system_time, 8);
}

TEST_P(ProcessTable, OneThreadsClassLeavesTheOthersAlone) {
  const ChildProcess child({[] {
    startSleepingThread(30);
    startSleepingThread(80, 5);
  }});
  look();
  child.step();
  const rusage_info_v3 usage = look(child);
  EXPECT_NEAR(usage.cpu_time_qos_utility, 80 * kTicksPerMs, 2 * kTicksPerClockTick);
  EXPECT_NEAR(usage.cpu_time_qos_legacy, 30 * kTicksPerMs, 2 * kTicksPerClockTick);
}

TEST_P(ProcessTable, WhatBecomesOfAProcessBetweenLooksDistortsNobodysFigures) {
  const ChildProcess::Steps spend = {[] { burn(30), startSleepingThread(20); }};
  const ChildProcess bystander(spend);
  ChildProcess::Steps steps = spend;
  steps.emplace_back([] { std::thread([] { burn(40); }).join(), prctl(PR_SET_NAME, "renamed"); });
  // All threads but the one that calls it end, and that becomes the main thread.
  steps.emplace_back([] { std::thread([] { execlp("sleep", "sleep", "infinity", nullptr); }).join(); });
  const ChildProcess changing(steps);
  auto mortal = std::make_unique<const ChildProcess>(spend);
  for (const ChildProcess* child : {&bystander, &changing, mortal.get()}) child->step();

  // Compared with /proc after each look: to both, user and system time never shrink, and their shares shift
  // with every clock tick, so what one has seen and the other hasn't would stand between them for good.
  const auto before = look();
  expectAsInProc(changing.pid(), before.at(changing.pid()));
  const pid_t dead = mortal->pid();
  mortal.reset();
  changing.step();
  const auto renamed = look();
  expectAsInProc(changing.pid(), renamed.at(changing.pid()));
  EXPECT_FALSE(renamed.contains(dead));
  EXPECT_EQ(nameOf(changing.pid()), "renamed");
  const auto spent = [](const rusage_info_v3& usage) { return usage.user_time + usage.system_time; };
  EXPECT_NEAR(spent(renamed.at(changing.pid())) - spent(before.at(changing.pid())), 40 * kTicksPerMs,
              2 * kTicksPerClockTick);

  changing.begin();
  for (int waited = 0; read(changing.pid(), "comm") != "sleep\n" && waited < 6000; ++waited) usleep(10'000);
  changing.waitUntilAsleep();
  const auto after = look();
  for (const auto* looked : {&before, &renamed, &after}) {
    const rusage_info_v3& other = looked->at(bystander.pid());
    EXPECT_NEAR(spent(other), spent(before.at(bystander.pid())), kTicksPerMs);  // a sanitizer's thread
    EXPECT_EQ(other.diskio_bytesread, before.at(bystander.pid()).diskio_bytesread);
    EXPECT_NEAR(sumOfClasses(other), spent(other), 8);
    EXPECT_EQ(looked->at(changing.pid()).proc_start_abstime, before.at(changing.pid()).proc_start_abstime);
  }
  EXPECT_GE(after.at(changing.pid()).user_time, renamed.at(changing.pid()).user_time);
  EXPECT_GE(after.at(changing.pid()).system_time, renamed.at(changing.pid()).system_time);
  expectAsInProc(changing.pid(), after.at(changing.pid()));
}

TEST_P(ProcessTable, SeesEveryProcessHoweverManyComeAndGo) {
  constexpr int kMany = 600;  // more than the BPF array holds at first
  std::vector<pid_t> sleepers;
  look();
  for (int i = 0; i < kMany; ++i) {
    char name[] = "sleep";
    char forever[] = "infinity";
    char* arguments[] = {name, forever, nullptr};
    ASSERT_EQ(posix_spawnp(&sleepers.emplace_back(), name, nullptr, nullptr, arguments, nullptr), 0);
  }
  const auto crowd = look();
  for (const pid_t pid : sleepers) {
    EXPECT_TRUE(crowd.contains(pid)) << pid;
    kill(pid, SIGKILL);
  }
  for (const pid_t pid : sleepers) waitpid(pid, nullptr, 0);
  const auto after = look();
  for (const pid_t pid : sleepers) EXPECT_FALSE(after.contains(pid)) << pid;
  EXPECT_TRUE(after.contains(getpid()));
}

TEST_P(ProcessTable, SeesASleeperAgainWhateverHasBecomeOfItSinceTheLastLook) {
  static const int file = memfd_create("held", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, kHeldBytes), 0);
  static volatile char* page =
      static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  const ChildProcess::Steps steps = {
      [] { page[0] = 1; }, writeAndReadBack, [] { std::thread([] { burn(1); }).join(); },
      [] { mmap(nullptr, kHeldBytes, PROT_READ, MAP_SHARED | MAP_POPULATE, file, 0); }};
  for (const bool withThreads : {false, true}) {
    SCOPED_TRACE(withThreads ? "with threads" : "with one thread");
    ASSERT_EQ(ftruncate(file, kHeldBytes), 0);
    ChildProcess::Steps all = steps;
    if (withThreads) {
      all.insert(all.begin(), [] { startSleepingThread(0); });
    } else {
      all.insert(all.begin() + 1, [] { syscall(SYS_mlock, page, 4096); });
    }
    const ChildProcess sleeper(all);
    for (size_t i = 0; i < all.size(); ++i) {
      look();
      look();
      sleeper.step();
      expectAsInProc(sleeper.pid(), look(sleeper));
    }
    const rusage_info_v3 held = look(sleeper);
    EXPECT_GE(held.resident_size, kHeldBytes);
    EXPECT_GT(held.diskio_byteswritten, 0u);
    ASSERT_EQ(ftruncate(file, 0), 0);  // it sleeps on
    const rusage_info_v3 left = look(sleeper);
    expectAsInProc(sleeper.pid(), left);
    EXPECT_LE(left.resident_size, held.resident_size - kHeldBytes);
  }
}

INSTANTIATE_TEST_SUITE_P(Every, ProcessTable, testing::Values(Way::taskWalk, Way::taskIterator, Way::procfs),
                         [](const auto& way) {
                           return std::string(way.param == Way::taskWalk       ? "TaskWalk"
                                              : way.param == Way::taskIterator ? "TaskIterator"
                                                                               : "Procfs");
                         });

TEST(ProcessTables, ChoosesOneWayAndSaysSoOnceWithLooksFromTwoThreads) {
  SimPlatform sim;
  LinuxProcessTables tables;
  tables.prepare();
  const auto looking = [&] {
    for (int i = 0; i < 20; ++i) {
      const auto table = tables.look();
      rusage_info_v3 usage;
      ASSERT_EQ(table->usage(getpid(), &usage), 0);
      EXPECT_GT(usage.resident_size, 0u);
    }
  };
  std::thread other(looking);
  looking();
  other.join();
  EXPECT_EQ(std::count_if(sim.logs.lines.begin(), sim.logs.lines.end(),
                          [](const LogLine& line) { return line.text.starts_with("Process table: read"); }),
            1)
      << sim.logs.dump();
}

}  // namespace
}  // namespace quorveld::linux_platform
