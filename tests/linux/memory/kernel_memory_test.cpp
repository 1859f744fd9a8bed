#include "platform/linux/memory/kernel_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "platform/linux/memory/kernel_memory_text.h"
#include "platform/linux/processes/procfs_parse.h"
#include "tests/linux/processes/child_process.h"
#include "tests/sim/sim_platform.h"

// What a memory report says of processes, by each way to read them, held against /proc.

namespace quorveld::linux_platform {
namespace {

using platform::priority_list_entry;

std::string read(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class KernelMemory : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string way = GetParam();
    std::string why;
    auto source = way == "Procfs"
                      ? openProcfsSource(why)
                      : openBpfSource(way == "TaskWalk" ? BpfPass::taskWalk : BpfPass::taskIterator, why);
    if (!source) GTEST_SKIP() << why;
    tables_ = std::make_unique<LinuxProcessTables>(std::move(source));
    memory_ = std::make_unique<LinuxKernelMemory>(*tables_);
  }

  std::map<int32_t, priority_list_entry> priorities() {
    const int bytes = memory_->priorityList(nullptr, 0);
    std::vector<priority_list_entry> list(static_cast<size_t>(bytes) / sizeof(priority_list_entry));
    EXPECT_EQ(memory_->priorityList(list.data(), static_cast<size_t>(bytes)), bytes);
    std::map<int32_t, priority_list_entry> all;
    for (const priority_list_entry& entry : list) all[entry.pid] = entry;
    return all;
  }
  /// Bytes of the process's footprint; -1 without a ledger.
  int64_t footprint(int32_t pid) {
    const auto names = memory_->ledgerTemplate().value_or(std::vector<platform::ledger_template_info>());
    std::vector<platform::ledger_entry_info> ledger(names.size());
    if (!memory_->ledger(pid, ledger.data(), ledger.size())) return -1;
    for (size_t i = 0; i < names.size(); ++i) {
      if (std::string(names[i].name) == "phys_footprint") return ledger[i].balance;
    }
    return -1;
  }

  sim::SimPlatform platform_;  // takes the log's lines
  std::unique_ptr<LinuxProcessTables> tables_;
  std::unique_ptr<LinuxKernelMemory> memory_;
};

TEST_P(KernelMemory, AgreesWithProcAndStandsByAProcessThatVanishes) {
  const ChildProcess scored({[] { std::ofstream("/proc/self/oom_score_adj") << 517 << std::flush; }});
  scored.step();
  auto vanishing = std::make_unique<ChildProcess>(ChildProcess::Steps());
  const int32_t gone = vanishing->pid();

  auto list = priorities();
  for (const int32_t pid : {scored.pid(), gone, getpid()}) {
    const std::string proc = "/proc/" + std::to_string(pid);
    ASSERT_TRUE(list.contains(pid));
    EXPECT_EQ(std::to_string(list[pid].priority) + "\n", read(proc + "/oom_score_adj"));
    if (pid == getpid()) continue;  // reading changes it
    const ProcfsStatus status = parseStatus(read(proc + "/status"));
    // A fork's may be its share.
    EXPECT_LE(footprint(pid), (status.anonymousKb + status.swappedKb) * 1024);
    EXPECT_GT(footprint(pid), 0);
  }
  EXPECT_EQ(list[scored.pid()].priority, 517);
  EXPECT_FALSE(list.contains(2)) << "a kernel thread has no memory of its own";

  vanishing.reset();
  EXPECT_GT(footprint(gone), 0);  // one report is of one moment
  EXPECT_FALSE(priorities().contains(gone));
  EXPECT_EQ(footprint(gone), -1);
}

/// What a process has of its own, a sanitizer's shadow included.
uint64_t anonymousPages(int32_t pid) {
  const std::string status = read("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("RssAnon:");
  const uint64_t kb = at == std::string::npos ? 0 : std::strtoull(status.c_str() + at + 8, nullptr, 10);
  return kb * 1024 / static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

TEST(ForkShares, AreReadWhenProcessesClaimMoreThanThereIs) {
  constexpr size_t kBytes = size_t{32} << 20;
  const std::vector<char> held(kBytes, 'x');
  std::vector<std::unique_ptr<ChildProcess>> forks;
  std::vector<SharingProcess> processes;
  uint64_t claimed = 0;
  for (int i = 0; i < 3; ++i) {
    forks.push_back(std::make_unique<ChildProcess>(ChildProcess::Steps()));
    const uint64_t pages = anonymousPages(forks.back()->pid());
    processes.push_back({forks.back()->pid(), 1, pages, pages});
    claimed += pages;
  }
  ForkShares shares;
  EXPECT_TRUE(shares.read(processes, claimed).empty()) << "there is as much as they claim";
  std::map<int32_t, uint64_t> found;
  if (read("/proc/self/smaps_rollup").find("Pss_Anon") == std::string::npos) GTEST_SKIP() << "no shares here";
  // On a busy machine the time may be up before two are read; a walk that goes on beyond it needs its end.
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::seconds(20);
  while (found.size() < 2 && Clock::now() < end) {
    found = shares.read(processes, 0);
    if (found.size() < 2) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (found.size() < 2) {
    auto fastest = Clock::duration::max();
    for (int i = 0; i < 20; ++i) {
      const auto begun = Clock::now();
      for (const SharingProcess& process : {processes[0], processes[1]})
        read("/proc/" + std::to_string(process.pid) + "/smaps_rollup");
      fastest = std::min(fastest, Clock::now() - begun);
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(fastest).count();
    if (us > 5000) GTEST_SKIP() << "two walks, which have 10 ms, took " << us << " us at best";
  }
  ASSERT_GE(found.size(), 2u);
  for (const auto& [pid, share] : found) EXPECT_LT(share, claimed / 3 / 2) << pid;
}

INSTANTIATE_TEST_SUITE_P(Every, KernelMemory, testing::Values("TaskWalk", "TaskIterator", "Procfs"),
                         [](const auto& way) { return std::string(way.param); });

}  // namespace
}  // namespace quorveld::linux_platform
