#include "platform/linux/processes/procfs_parse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "platform/linux/memory/host_statistics.h"
#include "platform/linux/processes/qos_classes.h"

namespace quorveld::linux_platform {
namespace {

const std::string kStat =
    "1184 (bash) S 1 1184 1184 0 -1 4194560 139794 500730 7 271 415 1945 807 481 25 5 3 0 3700 53747712 5296 "
    "18446744073709551615 1 1 0 0 0 0 0 4096 1256 0 0 0 17 0 0 3 0 0 0 0 0 0 0 0 0 0 0\n";

TEST(ProcfsText, StatIsReadByFieldAndTheNameMayHoldAnything) {
  const ProcfsStat stat = parseStat(kStat).value_or(ProcfsStat{});
  EXPECT_EQ(stat.comm, "bash");
  EXPECT_EQ(stat.majorFaults, 7u);
  EXPECT_EQ(stat.childMajorFaults, 271u);
  EXPECT_EQ(stat.userTicks, 415u);
  EXPECT_EQ(stat.systemTicks, 1945u);
  EXPECT_EQ(stat.childUserTicks, 807u);
  EXPECT_EQ(stat.childSystemTicks, 481u);
  EXPECT_EQ(stat.nice, 5);
  EXPECT_EQ(stat.threadCount, 3u);
  EXPECT_EQ(stat.startTicks, 3700u);
  EXPECT_EQ(stat.policy, 3u);
  EXPECT_FALSE(stat.isKernelThread());

  std::string hostile = kStat;
  hostile.replace(hostile.find("bash"), 4, "x) S 1 2 (3\n) R");
  const ProcfsStat same = parseStat(hostile).value_or(ProcfsStat{});
  EXPECT_EQ(same.comm, "x) S 1 2 (3\n) R");
  EXPECT_EQ(same.startTicks, 3700u);

  for (const std::string_view broken : {"", "(", ")(", "1 (a)", "1 (a) S", "1 (a) S 1 1 1 0 -1 x"}) {
    EXPECT_FALSE(parseStat(broken)) << broken;
  }
  for (size_t length = 0; length < kStat.rfind(" 3 0"); ++length) {
    EXPECT_FALSE(parseStat(kStat.substr(0, length)) && length < kStat.find(" 17 0 0 3")) << length;
  }
  std::string huge = kStat;
  huge.replace(huge.find("415"), 3, "99999999999999999999999");
  EXPECT_FALSE(parseStat(huge));
}

TEST(ProcfsText, AThreadsRunTimeIsReadToTheNanosecondFromEitherFile) {
  EXPECT_EQ(parseSchedstat("9351234567 122202 17\n"), 9351234567u);
  const std::string sched =
      "head (29578, #threads: 1)\n"
      "-------------------------------------------------------------------\n"
      "se.exec_start                                :      38410120.968296\n"
      "se.sum_exec_runtime                          :          1230.003021\n"
      "se.statistics.sum_exec_runtime               :             7.000000\n";
  EXPECT_EQ(parseSched(sched), 1230'003'021u);
  for (const std::string_view none : {"", "0 0 0", "se.sum_exec_runtime : 12", "se.sum_exec_runtime : 1.2"}) {
    EXPECT_EQ(parseSched(none), 0u) << none;
    EXPECT_EQ(parseSchedstat(none), 0u) << none;
  }
}

TEST(ProcfsText, KernelThreadsAreNamedAsTheKernelKeepsThem) {
  const auto nameOf = [](std::string_view comm, uint64_t flags) {
    ProcfsStat stat{};
    stat.comm = comm;
    stat.flags = flags;
    return commOf(stat);
  };
  constexpr uint64_t kKernel = 0x00200000;
  constexpr uint64_t kWorker = kKernel | 0x20;
  EXPECT_EQ(nameOf("kworker/0:1-events_unbound", kWorker), "kworker/0:1");
  EXPECT_EQ(nameOf("kworker/u8:3+flush-254:0", kWorker), "kworker/u8:3");
  EXPECT_EQ(nameOf("kworker/R-quota_events_unbound", kWorker), "kworker/R-quota");
  EXPECT_EQ(nameOf("rcu_tasks_trace_kthread", kKernel), "rcu_tasks_trace");
  EXPECT_EQ(nameOf("my-app+x", 0), "my-app+x");
}

TEST(ProcfsText, StatusAndIoTakeWhatIsThere) {
  const ProcfsStatus status = parseStatus(
      "Name:\tVmRSS:\\n 9\nVmLck:\t      12 kB\nVmHWM:\t 9999 kB\nVmRSS:\t    1616 kB\n"
      "RssAnon:\t     116 kB\nRssFile:\t    1500 kB\nVmSwap:\t       8 kB");
  EXPECT_EQ(status.residentKb, 1616u);
  EXPECT_EQ(status.anonymousKb, 116u);
  EXPECT_EQ(status.swappedKb, 8u);
  EXPECT_EQ(status.lockedKb, 12u);
  const ProcfsIo io = parseIo("rchar: 1\nread_bytes: 4096\nwrite_bytes: 8192\ncancelled_write_bytes: 77\n");
  EXPECT_EQ(io.readBytes, 4096u);
  EXPECT_EQ(io.writeBytes, 8192u);
  for (const std::string_view text : {"", "\n", ":", "VmRSS:", "VmRSS: -1", "VmRSS: x", "read_bytes:"}) {
    EXPECT_EQ(parseStatus(text).residentKb, 0u) << text;
    EXPECT_EQ(parseIo(text).readBytes, 0u) << text;
  }
}

TEST(ProcfsText, AClockIsAheadOfTheKernelsBySecondsAndNanoseconds) {
  const std::string offsets = "monotonic        -300 250000000\nboottime         7         0\n";
  EXPECT_EQ(parseClockOffset(offsets, "monotonic"), -299'750'000'000);
  EXPECT_EQ(parseClockOffset(offsets, "boottime"), 7'000'000'000);
  EXPECT_EQ(parseClockOffset(offsets, "boot"), 0);
  for (const char* broken : {"", "boottime", "boottime 7", "boottime 7 x"}) {
    EXPECT_EQ(parseClockOffset(broken, "boottime"), 0) << broken;
  }
}

TEST(VmStatistics, EachFieldHasItsLine) {
  const std::string vmstat =
      "nr_free_pages 1\nnr_zone_active_anon 5\nnr_inactive_anon 2\nnr_active_anon 30\nnr_inactive_file 400\n"
      "nr_active_file 5000\nnr_unevictable 7\nnr_slab_unreclaimable 60\nnr_anon_pages 11\n"
      "nr_file_pages 1000\nnr_shmem 100\nnr_page_table_pages 800\nnr_sec_page_table_pages 9000\n"
      "nr_swapcached 10\npgpgin 4001\npgpgout 83\npswpin 3\npswpout 4\npgactivate 21\n"
      "pgfault 5000000000\npgmajfault 22\npglazyfreed 6\nzswpin 31\nzswpout 32\n";
  const std::string meminfo =
      "MemTotal: 99999999 kB\nMemFree:        400 kB\nSwapCached: 0 kB\nZswap:  44 kB\nZswapped: 88 kB\n"
      "VmallocTotal: 34359738367 kB\nVmallocUsed: 40000 kB\nPercpu: 400000 kB\n";
  const auto vm = parseVmStatistics(vmstat, meminfo, 4096).value_or(platform::vm_statistics64{});
  const platform::vm_statistics64 expected{.free_count = 100,
                                           .active_count = 5030,
                                           .inactive_count = 402,
                                           .wire_count = 7 + 60 + 800 + 9000 + 10000 + 100000,
                                           .zero_fill_count = 0,
                                           .reactivations = 21,
                                           .pageins = 1000,
                                           .pageouts = 20,
                                           .faults = 5'000'000'000,
                                           .cow_faults = 0,
                                           .lookups = 0,
                                           .hits = 0,
                                           .purges = 6,
                                           .purgeable_count = 0,
                                           .speculative_count = 0,
                                           .decompressions = 31,
                                           .compressions = 32,
                                           .swapins = 3,
                                           .swapouts = 4,
                                           .compressor_page_count = 11,
                                           .throttled_count = 0,
                                           .external_page_count = 890,
                                           .internal_page_count = 111,
                                           .total_uncompressed_pages_in_compressor = 22};
  EXPECT_EQ(std::memcmp(&vm, &expected, sizeof(expected)), 0);

  // No file page is left when more is shared than counted; 32-bit fields fill up.
  platform::vm_statistics64 odd{};
  odd.external_page_count = 1;
  odd = parseVmStatistics("nr_shmem 5\nnr_file_pages 4\n", "MemFree: 99999999999999 kB", 4096).value_or(odd);
  EXPECT_EQ(odd.external_page_count, 0u);
  EXPECT_EQ(odd.free_count, UINT32_MAX);
  EXPECT_FALSE(parseVmStatistics("", meminfo, 4096));
  EXPECT_FALSE(parseVmStatistics(vmstat, "", 4096));
  EXPECT_FALSE(parseVmStatistics(vmstat, "xMemFree: 1 kB\nMemFree 3", 4096));
}

TEST(VmStatistics, ThisMachineAnswers) {
  LinuxHostStatistics host;
  platform::vm_statistics64 before{};
  platform::vm_statistics64 after{};
  ASSERT_TRUE(host.vmStatistics(&before));
  const std::string touched(size_t{8} << 20, 'x');
  ASSERT_TRUE(host.vmStatistics(&after));
  EXPECT_GE(after.faults - before.faults,
            touched.size() / host.pageSizeBytes() / 512);  // huge pages, at the most
  EXPECT_GT(after.free_count, 0u);
  EXPECT_GT(after.internal_page_count, 0u);
  EXPECT_FALSE(LinuxHostStatistics("/nowhere").vmStatistics(&after));
}

TEST(QosClasses, FollowPolicyFirstAndThenTheNiceLevel) {
  enum { kNormal, kFifo, kRoundRobin, kBatch, kIdle = 5, kDeadline, kExtension };
  const std::tuple<unsigned, int, int, qos_class> cases[] = {
      {kNormal, -1, 0, kQosUserInitiated},    {kNormal, 0, 0, kQosLegacy},
      {kNormal, 1, 0, kQosUtility},           {kNormal, 9, 0, kQosUtility},
      {kNormal, 10, 0, kQosBackground},       {kNormal, 19, 0, kQosBackground},
      {kFifo, 19, 0, kQosUserInteractive},    {kRoundRobin, 0, 0, kQosUserInteractive},
      {kDeadline, 0, 0, kQosUserInteractive}, {kBatch, -5, 0, kQosUtility},
      {kIdle, -5, 0, kQosMaintenance},        {kExtension, 0, 0, kQosLegacy},
      {kFifo, -20, 1, kQosDefault},           {kNormal, 0, 1, kQosDefault},
  };
  for (const auto& [policy, nice, kernel, expected] : cases) {
    EXPECT_EQ(qosClassOf(policy, nice, kernel), expected) << policy << ' ' << nice << ' ' << kernel;
  }
}

}  // namespace
}  // namespace quorveld::linux_platform
