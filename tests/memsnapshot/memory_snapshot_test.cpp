#include "memsnapshot/memory_snapshot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "tests/sim/sim_platform.h"

// The memory report: its text to the byte, and that it is whole or not there at all.

namespace quorveld {
namespace {

using platform::LogLevel;
using sim::Op;

constexpr const char* kReport = "/Library/Logs/Faultkeep//memory-snapshot-2026-01-15-100000.ips";
constexpr const char* kWorkingFile =
    "/var/root/Library/Caches/quorveld//memory-snapshot-2026-01-15-100000.ips";

platform::memory_info_site site(uint64_t flags, uint64_t value, uint64_t size) {
  platform::memory_info_site info{};
  info.flags = flags;
  info.site = value;
  info.size = size;
  return info;
}

/// A small machine that has one of everything.
class Machine : public sim::SimPlatform {
 public:
  /// One report, and the time that it takes.
  void takeSnapshot() {
    snapshots->take_memory_snapshot();
    settle();
  }
  Machine() {
    for (const char* directory : {"/var", "/var/root", "/var/root/Library", "/var/root/Library/Caches",
                                  "/var/root/Library/Caches/quorveld"}) {
      (void)files.makeDirectory(directory, 0755);
    }
    device.version = {"Orvane OS \"dev\"", "1.2", std::nullopt};
    kernel.statistics.free_count = 10;
    kernel.statistics.active_count = 20;
    kernel.statistics.faults = 1ull << 40;
    kernel.statistics.internal_page_count = 7;
    kernel.ledgerNames = {{"resident", "", ""}, {"phys_footprint", "", ""}};
    addProcess(1, "/sbin/init", -1000, 4096 * 3, 0, 0);
    addProcess(2, "/apps/say \"hi\"\n", 200, int64_t{4096} << 21, 1u | 1u << 24 | 1ull << 27, 1u << 3);
    addProcess(3, "noslash", 0, 0, 0, 1u << 3 | 1u << 5);
    addProcess(4, "/ends/in/slash/", 0, 0, 0, 0);
    addProcess(5, "", 0, 0, 0, 0);
    kernel.executablePaths.erase(5);
    kernel.priorities.push_back(
        {.pid = 6, .priority = 0, .user_data = 0, .limit = -1, .state = 0});  // gone since
    kernel.memory.zoneNames = {{"kmalloc-8"}, {"dentry"}};
    kernel.memory.zoneInfos.resize(2);
    kernel.memory.zoneInfos[0].current_size = 8192;
    kernel.memory.zoneInfos[1].current_size = 4095;
    kernel.memory.sites = {site(0x100, 12, 4096), site(0x100, 255, 4096), site(0x100, 99, 4096),
                           site(0x101, 5, 12288), site(0x101, 6, 4096),   site(0x102, 0xFF00, 4096),
                           site(0x102, 1, 8192),  site(0x103, 8, 4096),   site(0x103, 9, 4096),
                           site(0x104, 1, 4096),  site(0x100, 1, 0),      site(0x000, 2, 4096),
                           site(0x300, 3, 4096)};
    kernel.extensions = {{5, "ext4"}};
    kernel.symbols = {{0xFF00, "kernel_clone"}};
  }

  void addProcess(int32_t pid, const char* path, int32_t priority, int64_t footprint, uint64_t assertions,
                  uint32_t state) {
    kernel.executablePaths[pid] = path;
    kernel.priorities.push_back(
        {.pid = pid, .priority = priority, .user_data = assertions, .limit = -1, .state = state});
    kernel.ledgers[pid] = std::vector<platform::ledger_entry_info>(2);
    kernel.ledgers[pid][1].balance = footprint;
  }

  std::unique_ptr<platform::WorkQueue> workQueue = queues.create("work", platform::QoSClass::userInitiated);
  std::unique_ptr<MemorySnapshots> snapshots = std::make_unique<MemorySnapshots>(*workQueue);
};

std::string golden() {
  std::ifstream file(GOLDEN_DIR "/memory_snapshot.ips");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(MemorySnapshot, ReportsTheWholeMachine) {
  Machine machine;
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.content(kReport).value_or("(no report)"), golden());
  EXPECT_EQ(machine.files.content(kWorkingFile), std::nullopt);
}

TEST(MemorySnapshot, IsMadeBesideTheWorkQueueOneAtATime) {
  Machine machine;
  machine.snapshots->take_memory_snapshot();
  EXPECT_TRUE(machine.files.list("/var/root/Library/Caches/quorveld").empty()) << "the caller made it";
  machine.snapshots->take_memory_snapshot();
  EXPECT_TRUE(
      machine.logs.has(LogLevel::standard, "Memory snapshot left out: the last one is still being made"));
  machine.settle();
  EXPECT_EQ(machine.files.list("/Library/Logs/Faultkeep").size(), 1u);

  machine.snapshots->take_memory_snapshot();
  machine.snapshots.reset();  // the daemon's end
  machine.settle();
  EXPECT_EQ(machine.files.list("/Library/Logs/Faultkeep").size(), 1u);
  EXPECT_TRUE(machine.files.list("/var/root/Library/Caches/quorveld").empty());
}

/// One refusal of `op` spoils one report. `said`: here; what the kernel refuses is said by the platform.
void expectOneReportLost(Op op, bool said) {
  SCOPED_TRACE(static_cast<int>(op));
  Machine machine;
  machine.faults.failOnce(op);
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.content(kReport), std::nullopt);
  EXPECT_EQ(machine.files.content(kWorkingFile), std::nullopt);
  EXPECT_EQ(machine.files.openFiles(), 0);
  EXPECT_EQ(machine.logs.has(LogLevel::standard,
                             std::string("Memory snapshot not kept: ") + kReport + ": Input/output error"),
            said);
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.list("/var/root/Library/Caches/quorveld").size(), 0u);
  EXPECT_TRUE(machine.files.content(kReport).has_value());
}

/// In a process of its own: once known, the ledger's template isn't asked for again.
TEST(MemorySnapshotDeathTest, IsNotThereWithoutALedger) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        expectOneReportLost(Op::ledgerTemplate, false);
        std::exit(testing::Test::HasFailure());
      },
      testing::ExitedWithCode(0), "");
}

TEST(MemorySnapshot, IsWholeOrNotThere) {
  expectOneReportLost(Op::memoryInfo, false);
  for (const Op op : {Op::writeFile, Op::closeFile, Op::move}) expectOneReportLost(op, true);

  Machine machine;
  machine.faults.failOnce(Op::createFile, 1, std::errc::no_space_on_device);
  machine.takeSnapshot();
  EXPECT_EQ(machine.logs.systemLines,
            std::vector<std::string>{std::string("Could not create file - won't take a memory snapshot: ") +
                                     kWorkingFile + " No space left on device"});
}

TEST(MemorySnapshot, ASecondThatComesAgainOverwritesNothing) {
  Machine machine;
  machine.files.putFile("/Library/Logs/Faultkeep/memory-snapshot-2026-01-15-100000.ips",
                        "of the same second, before clocks went back");
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.content(kReport), "of the same second, before clocks went back");
  EXPECT_EQ(
      machine.files.content("/Library/Logs/Faultkeep//memory-snapshot-2026-01-15-100000-2.ips").value_or(""),
      golden());

  const std::string last = "/Library/Logs/Faultkeep//memory-snapshot-2026-01-15-100000-100.ips";
  for (int number = 3; number <= 100; ++number) machine.takeSnapshot();
  EXPECT_TRUE(machine.logs.lines.empty());
  machine.files.putFile("/Library/Logs/Faultkeep/memory-snapshot-2026-01-15-100000-100.ips",
                        "the last there is room for");
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.content(last), "the last there is room for");
  ASSERT_EQ(machine.logs.lines.size(), 1u);
  EXPECT_EQ(machine.logs.lines[0].text, "Memory snapshot not kept: " + last + ": File exists");
}

/// Ends the process: the first line is made once in its life.
void exitWithFirstLine(const std::string& systemName, const std::string& expectedText) {
  Machine machine;
  machine.device.version = {systemName, "1", "2"};
  machine.takeSnapshot();
  const std::string report = machine.files.content(kReport).value_or("");
  EXPECT_EQ(report.substr(0, report.find("{\n\"Model\"")),
            "{\"bug_type\":\"152\",\"os_version\":\"" + expectedText);
  std::exit(testing::Test::HasFailure());
}

TEST(MemorySnapshotDeathTest, FirstLineIsCutBetweenCharacters) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const testing::ExitedWithCode held(0);
  const auto y = [](size_t count) { return std::string(count, 'y'); };  // 67 bytes of the text have room
  EXPECT_EXIT(exitWithFirstLine(y(66) + "\u00e4z", y(66)), held, "");
  EXPECT_EXIT(exitWithFirstLine(y(65) + "\u00e4z", y(65) + "\u00e4"), held, "");
  EXPECT_EXIT(exitWithFirstLine(y(66) + "\"z", y(66)), held, "");
  EXPECT_EXIT(exitWithFirstLine(y(62) + "\x01" + "z", y(62)), held, "");
}

TEST(MemorySnapshot, MakesRoomForItselfAndIsNotWrittenOnADiskThatIsNearlyFull) {
  Machine machine;
  const std::string folder = "/Library/Logs/Faultkeep";
  machine.files.putFile(folder + "/memory-snapshot-2025.ips", "old");
  machine.files.putFile(folder + "/crash-2025.ips", "another's");
  machine.advance(std::chrono::hours(24 * 30 + 1));
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.list(folder),
            (std::vector<std::string>{"crash-2025.ips", "memory-snapshot-2026-02-14-110000.ips"}));
  EXPECT_EQ(machine.analytics.added["com.corvix.quorvel.QVReportsRemoved.Faultkeep"], 1);

  machine.files.disk = {.freeBytes = 4, .totalBytes = 100};
  machine.advance(std::chrono::seconds(1));
  machine.takeSnapshot();
  EXPECT_EQ(machine.files.list(folder).size(), 2u);
  EXPECT_EQ(
      machine.logs.systemLines,
      std::vector<std::string>{"Could not create file - won't take a memory snapshot: "
                               "/var/root/Library/Caches/quorveld//memory-snapshot-2026-02-14-110001.ips "
                               "No space left on device"});
}

TEST(MemorySnapshot, SurvivesWhatIsMissing) {
  Machine machine;
  machine.faults.failOnce(Op::vmStatistics);
  machine.faults.failOnce(Op::priorityList);
  machine.kernel.memory.zoneNames.pop_back();  // names and sizes that don't pair
  machine.takeSnapshot();
  const std::string report = machine.files.content(kReport).value_or("");
  EXPECT_NE(
      report.find("\"VM\" :\n{\n\"error\" : \"host_statistics64 failed\"\n},\n\"Processes\" :\n[\n],\n"),
      std::string::npos)
      << report;
  EXPECT_NE(report.find("\"Zones\" :\n[\n],\n\"Wired\" :\n[\n"), std::string::npos);
}

}  // namespace
}  // namespace quorveld
