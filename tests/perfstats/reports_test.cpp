#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "base/settings.h"
#include "base/value_text.h"
#include "perfstats/activation_flags.h"
#include "perfstats/activation_report.h"
#include "perfstats/report_state.h"
#include "tests/perfstats/statistics.h"
#include "tests/sim/sim_platform.h"

namespace quorveld {
namespace {

using platform::Dictionary;
using platform::LogLevel;

constexpr uint64_t kTicksPerMs = 24'000;

std::string golden(const char* name) {
  std::ifstream file(std::string(GOLDEN_DIR "/") + name);
  EXPECT_TRUE(file) << "no golden file " << name;
  return (std::ostringstream() << file.rdbuf()).str();
}

/// A process whose eleven reported figures all differ: `ms` in all, ms + 1 to ms + 7 and a bit in the
/// classes.
task_statistics busy(int32_t pid, const std::string& name, uint64_t ms) {
  const auto classTicks = [ms](uint64_t more) { return (ms + more) * kTicksPerMs + kTicksPerMs / 2; };
  task_statistics entry = task(pid, name, ms * kTicksPerMs);
  platform::rusage_info_v3& usage = entry.rusage;
  usage.system_time = classTicks(777);  // shown nowhere
  usage.cpu_time_qos_default = classTicks(1);
  usage.cpu_time_qos_user_interactive = classTicks(2);
  usage.cpu_time_qos_user_initiated = classTicks(3);
  usage.cpu_time_qos_legacy = classTicks(4);
  usage.cpu_time_qos_utility = classTicks(5);
  usage.cpu_time_qos_maintenance = classTicks(6);
  usage.cpu_time_qos_background = classTicks(7);
  usage.diskio_bytesread = ms * 1024 + 1023;
  usage.diskio_byteswritten = ms * 2048;
  usage.pageins = 3;
  return entry;
}

VmStatisticsPtr vmCounters(uint64_t base) {
  VmStatisticsPtr vm(static_cast<platform::vm_statistics64*>(std::calloc(1, sizeof *vm)));
  const auto word = [base](uint32_t field) { return static_cast<uint32_t>(base * 100 + field); };
  *vm = {word(30),  word(2),   word(3),   word(4),   base * base * 5, base * base * 6, base * 7, base * 8,
         base * 9,  base * 10, base * 11, base * 12, base * 13,       word(14),        word(15), base * 16,
         base * 17, base * 18, base * 19, word(20),  word(21),        word(22),        word(23), base * 24};
  return vm;
}

struct ReportsTest : testing::Test {
  ReportsTest() { reportState() = {}; }

  void between(const std::vector<task_statistics>& before, const std::vector<task_statistics>& after) {
    start.setCpu_stats(statistics(before));
    end.setCpu_stats(statistics(after));
  }
  /// The activation of process 312, with one process of each kind around it.
  void busyActivation() {
    between({task(312, "viewer"), task(20, "helper"), task(90, "gone", 50)},
            {busy(312, "view\"er\"", 120), busy(20, "helper", 12), busy(400, "born\x01", 30)});
    start.setVm_stats(vmCounters(1));
    end.setVm_stats(vmCounters(3));
  }

  ActivationReport report() {
    return {.snapshotTypesToRecord = types,
            .startSnapshot = &start,
            .endSnapshot = &end,
            .pid = pid,
            .processName = std::nullopt,
            .bundleID = "com.example.view\xFF",
            .appActivationID = 0x1122'3344'5566'7788,
            .startTimestamp = 631'152'000'250,
            .systemUptime = 86'400,
            .wallTime = 450,
            .appActivationResult = 2,
            .appActivationType = 1,
            .appActivationFlags = flags};
  }
  const platform::ActivationEvent& sendToPelmar() {
    logAppActivationDataToPelmar(report());
    return world.powerLog.events.back();
  }
  static std::vector<std::string> keys(const Dictionary& dictionary) {
    std::vector<std::string> listed;
    for (const auto& [key, value] : dictionary) listed.push_back(key);
    return listed;
  }
  static uint64_t number(const Dictionary& data, const std::string& key, const std::string& field) {
    for (const auto& [outer, inner] : data) {
      for (const auto& [name, value] : std::get<Dictionary>(inner.data)) {
        if (outer == key && name == field) return std::get<uint64_t>(value.data);
      }
    }
    ADD_FAILURE() << "no " << field << " of " << key;
    return 0;
  }
  /// The names that an event tells the service, in the order of their pids.
  static std::vector<std::string> names(const platform::ActivationEvent& event) {
    std::vector<std::string> listed;
    for (const auto& [key, value] : event.processData) {
      listed.push_back(std::get<std::string>(std::get<Dictionary>(value.data).back().second.data));
    }
    return listed;
  }

  sim::SimPlatform world;
  PerfSnapshot start, end;
  uint8_t types = 7;
  int32_t pid = 312;
  uint64_t flags = 0;
};

using Names = std::vector<std::string>;

TEST_F(ReportsTest, ConsoleShowsTheTableOfProcessesAndThreeTablesOfPages) {
  busyActivation();
  testing::internal::CaptureStdout();
  logAppActivationDataToConsole(report());
  const std::string printed = testing::internal::GetCapturedStdout();
  std::string logged;
  for (const std::string& line : world.logs.systemLines) logged += line;
  EXPECT_EQ(logged, golden("console_system_log.txt"));
  EXPECT_EQ(printed, golden("console_stdout.txt"));
}

TEST_F(ReportsTest, JSONHasItsBlanksItsUnescapedNamesAndItsCommaWhateverIsMissing) {
  busyActivation();
  logAppActivationDataAsJSON(report());
  const std::string prefix = "QVActivationStats: Output ";
  ASSERT_EQ(world.logs.lines.size(), 1u);
  EXPECT_EQ(world.logs.lines[0].level, LogLevel::info);
  EXPECT_EQ(world.logs.lines[0].text, prefix + golden("activation.json.txt"));

  types = kSnapshotVm;
  logAppActivationDataAsJSON(report());
  EXPECT_EQ(world.logs.lines[1].text, prefix + golden("vm_only.json.txt"));

  types = kSnapshotCpu;
  end.setCpu_stats(nullptr);
  logAppActivationDataAsJSON(report());
  EXPECT_EQ(world.logs.lines.back().text, prefix + "\n{\n\"cpu_statistics\":\n[\t]\n,}\n");
  types = 0;
  logAppActivationDataAsJSON(report());
  EXPECT_EQ(world.logs.lines.back().text, prefix + "\n{\n,}\n");
}

TEST_F(ReportsTest, PowerLogHandsOverTheFourDictionariesThatItLogs) {
  busyActivation();
  flags = 0x1F00;
  const platform::ActivationEvent& event = sendToPelmar();
  std::string text = describe(event.activationData) + "\n";
  for (const Dictionary* data : {&event.cpuData, &event.vmData, &event.processData}) {
    for (const auto& [key, inner] : *data)
      text += key + ": " + describe(std::get<Dictionary>(inner.data)) + "\n";
  }
  EXPECT_EQ(text, golden("power_log.txt"));
  EXPECT_EQ(flags, 0x1F01u);

  std::vector<std::string> debugLines;
  for (const sim::LogLine& line : world.logs.lines) {
    if (line.level == LogLevel::debug) debugLines.push_back(line.text);
  }
  EXPECT_EQ(debugLines, (Names{"QVActivationStats: Number of Other Processes:1",
                               "QVActivationStats: Value to insert:1 Output Value:1f01 MaxValue:ff Index:0",
                               "QVActivationStats: Sending Activation Flags:1f01",
                               "QVActivationStats: StartTime we got:631152000.250",
                               "QVActivationStats: Activation Data:" + describe(event.activationData) + "\n",
                               "QVActivationStats: CPU Data:" + describe(event.cpuData) + "\n",
                               "QVActivationStats: VM Data:" + describe(event.vmData) + "\n",
                               "QVActivationStats: Process Data:" + describe(event.processData) + "\n"}));
}

TEST_F(ReportsTest, PowerLogAddsUpWhatIsPresentAndNotAboveTheThreshold) {
  between(
      {task(312, ""), task(1, ""), task(2, ""), task(3, ""), task(5, "")},
      {busy(312, "app", 1), busy(1, "at", 50), busy(2, "above", 51), busy(3, "idle", 0), busy(4, "new", 1)});
  const platform::ActivationEvent& event = sendToPelmar();
  // In the order of the delta: 51 ms, 50, 1 (pid 4), 1 (pid 312), 0 (pid 3), 0 (dead).
  EXPECT_EQ(keys(event.cpuData), (Names{"0", "2", "3", "5", "-1"}));
  EXPECT_EQ(number(event.cpuData, "-1", "TotalCPU_ms"), 50u);
  EXPECT_EQ(number(event.cpuData, "-1", "QOSBackground_ms"), 57u + 7u);
  EXPECT_EQ(number(event.cpuData, "-1", "IOReads_kb"), 50u);
  EXPECT_EQ(number(event.cpuData, "-1", "IOWrites_kb"), 100u);
  EXPECT_EQ(number(event.cpuData, "-1", "PageIns"), 6u);
  EXPECT_EQ(number(event.cpuData, "5", "ProcessLifecycleState"), kTaskDead);

  settings().activationCPUThreshold = 0.5;
  EXPECT_EQ(keys(sendToPelmar().cpuData), (Names{"0", "1", "2", "3", "5", "-1"}));
}

TEST_F(ReportsTest, PowerLogCutsAllButTimesTo32Bits) {
  task_statistics app = task(312, "app", (uint64_t{1} << 40) * kTicksPerMs);
  app.rusage.diskio_bytesread = (uint64_t{1} << 42) + 2048;
  app.rusage.pageins = (uint64_t{1} << 32) + 9;
  between({}, {app});
  const Dictionary& data = sendToPelmar().cpuData;
  EXPECT_EQ(number(data, "0", "TotalCPU_ms"), uint64_t{1} << 40);
  EXPECT_EQ(number(data, "0", "IOReads_kb"), 2u);
  EXPECT_EQ(number(data, "0", "PageIns"), 9u);
}

TEST_F(ReportsTest, PowerLogCountsUpTo255SmallProcessesInTheFlags) {
  std::vector<task_statistics> tasks{task(312, "app")};
  for (int32_t small = 1000; small < 1300; ++small) tasks.push_back(task(small, "small"));
  between(tasks, tasks);
  sendToPelmar();
  EXPECT_EQ(flags, 0xFFu);
  EXPECT_TRUE(world.logs.has(LogLevel::debug, "QVActivationStats: Number of Other Processes:300"));
}

TEST_F(ReportsTest, PowerLogNamesEachPidOnceUntilPidsStartOver) {
  between({}, {task(312, "app", 9), task(200, "shell")});
  EXPECT_EQ(names(sendToPelmar()), (Names{"OtherProcesses", "shell", "app"}));
  EXPECT_EQ(reportState().largestTrackedPid, 312);

  between({}, {task(312, "app"), task(200, "shell"), task(350, "late"), task(360, "later")});
  EXPECT_EQ(names(sendToPelmar()), (Names{"com.example.view\xEF\xBF\xBD", "late", "later"}))
      << "the activation's own process is always there, under its bundle's name when it was named before";
  EXPECT_FALSE(world.logs.hasPrefix(LogLevel::standard, " ***** QVActivationStats:Pids rolled over!"));

  pid = 90;  // pids have wrapped
  between({}, {task(90, "second app"), task(200, "shell")});
  EXPECT_EQ(names(sendToPelmar()), (Names{"second app", "shell"}));
  EXPECT_EQ(reportState().largestTrackedPid, 200);
  EXPECT_EQ(
      world.logs.count(LogLevel::standard,
                       " ***** QVActivationStats:Pids rolled over! Resetting our state to track new pids "
                       "[App pid: 90. Last Seen:360] *****"),
      1);

  pid = 312;
  resetLargestTrackedPid();
  EXPECT_EQ(names(sendToPelmar()), (Names{"second app", "shell", "com.example.view\xEF\xBF\xBD"}));

  pid = -5;  // no process's: below everything, always
  resetLargestTrackedPid();
  sendToPelmar();
  EXPECT_EQ(
      world.logs.count(LogLevel::standard,
                       " ***** QVActivationStats:Pids rolled over! Resetting our state to track new pids "
                       "[App pid: -5. Last Seen:-1] *****"),
      1);
}

TEST_F(ReportsTest, PowerLogSaysNothingOfWhatASnapshotLacks) {
  const platform::ActivationEvent& event = sendToPelmar();
  EXPECT_TRUE(event.cpuData.empty());
  EXPECT_TRUE(event.vmData.empty());
  EXPECT_EQ(names(event), (Names{"OtherProcesses", "com.example.view\xEF\xBF\xBD"}));

  between({}, {});
  EXPECT_EQ(keys(sendToPelmar().cpuData), Names{"-1"}) << "nothing was spent, and that is said";
  EXPECT_EQ(number(world.powerLog.events.back().cpuData, "-1", "UniqueID"), ~uint64_t{0});
}

TEST_F(ReportsTest, ConsoleIsSilentAboutWhatASnapshotLacks) {
  testing::internal::CaptureStdout();
  logAppActivationDataToConsole(report());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(world.logs.systemLines.empty());
}

TEST_F(ReportsTest, PageCountsWrapIn32BitsAndJSONShowsThemSigned) {
  types = kSnapshotVm;
  start.setVm_stats(vmCounters(0));
  testing::internal::CaptureStdout();
  logAppActivationDataToConsole(report());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "one end alone is nothing to compare";

  end.setVm_stats(vmCounters(0));
  start.vm_stats()->purges = 7;
  end.vm_stats()->purges = 4;
  end.vm_stats()->speculative_count = 31;  // one more than there are free pages
  testing::internal::CaptureStdout();
  logAppActivationDataToConsole(report());
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("swapouts\n4294967295 "), std::string::npos) << printed;
  EXPECT_NE(printed.find(" 4294967293 "), std::string::npos) << "the difference of the purges\n" << printed;
  logAppActivationDataAsJSON(report());
  EXPECT_NE(world.logs.lines.back().text.find("{     \n\t\"free\":-1,"), std::string::npos);
}

TEST_F(ReportsTest, FlagsSaturateAndNeverLoseABit) {
  insert_activation_flag(40, ActivationFlag::startLatency, flags);
  EXPECT_EQ(flags, uint64_t{31} << 8);
  insert_activation_flag(1, ActivationFlag::startLatency, flags);
  insert_activation_flag(~uint64_t{0}, ActivationFlag{2}, flags);
  EXPECT_EQ(flags, uint64_t{31} << 8 | uint64_t{3} << 20);
  insert_activation_flag(1, ActivationFlag{6}, flags);
  EXPECT_EQ(flags, uint64_t{31} << 8 | uint64_t{3} << 20);
  EXPECT_TRUE(world.logs.has(LogLevel::debug,
                             "QVActivationStats: Value to insert:1f Output Value:1f00 MaxValue:1f Index:8"));
}

}  // namespace
}  // namespace quorveld
