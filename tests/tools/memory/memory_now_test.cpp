#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/memory/now_parse.h"
#include "tools/memory/now_text.h"

// What the kernel tells of memory at this moment, and how it is told on.

namespace quorvelctl {
namespace {

TEST(MemoryNow, AnInterpreterIsCalledByItsScript) {
  const auto name = [](const char* program, std::vector<std::string> arguments) {
    return nameOfProgram(program, arguments);
  };
  EXPECT_EQ(name("python3.11", {"python3", "-W", "ignore", "-u", "/opt/backup.py", "--all"}),
            "backup.py (python3.11)");
  EXPECT_EQ(name("python3.11", {"python3", "-m", "http.server"}), "http.server (python3.11)");
  EXPECT_EQ(name("python3.11", {"python3", "-c", "import time"}), "python3.11");
  EXPECT_EQ(name("bash", {"-bash"}), "bash");
  EXPECT_EQ(name("java", {"java", "-Xmx1g", "-jar", "/srv/a.jar"}), "/srv/a.jar (java)");
  EXPECT_EQ(name("dash", {"sh", "/etc/init.d/"}), "/etc/init.d/ (dash)");
  EXPECT_EQ(name("shutdown", {"shutdown", "now"}), "shutdown");
  EXPECT_EQ(name("perl", {}), "perl");
  EXPECT_EQ(argumentsOf(std::string_view("a\0\0b c\0", 7)), (std::vector<std::string>{"a", "", "b c"}));
}

TEST(MemoryNow, TextsOfTheKernelAreRead) {
  EXPECT_EQ(cgroupPath("9:memory:/m\n0::/\n"), "/m");
  EXPECT_EQ(cgroupPath("0::/user.slice/a:b\n"), "/user.slice/a:b");
  EXPECT_EQ(cgroupPath("garbage"), "");
  EXPECT_EQ(lineBytes("Name:\tx\nVmRSS:\t   12 kB\n", "VmRSS"), 12u * 1024);
  EXPECT_EQ(lineBytes("VmRSSX: 1 kB\n", "VmRSS"), std::nullopt);

  const auto mounts = parseTmpfsMounts(
      "21 20 0:19 / /dev/my\\040shm rw shared:2 - tmpfs tmpfs rw\n22 20 8:1 / / rw - ext4 /dev/sda1 rw\n23 20 0:20\n");
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_EQ(mounts[0].path, "/dev/my shm");
  const auto mappings = parseSharedMappings(
      "7f00-7f10 rw-s 00000000 00:01 77 /memfd:a b (deleted)\n7f10-7f20 r--p 00000000 08:01 78 /lib/x\n"
      "7f20-7f30 rw-s 00000000 00:13 79 /elsewhere\n7f30-7f40 rw-p 00000000 00:00 0 [heap]\nbroken\n",
      mounts);
  ASSERT_EQ(mappings.size(), 2u);
  EXPECT_EQ(mappings[0].path, "/memfd:a b (deleted)");
  EXPECT_EQ(mappings[1].device, "0:19");  // maps has it in hexadecimal digits
  EXPECT_EQ(mappings[1].range, "7f20-7f30");

  const auto segments = parseSysvSegments(
      "key shmid perms size cpid lpid nattch uid gid cuid cgid atime dtime ctime rss swap\n"
      "0 3 1600 9999999 11 12 1 0 0 0 0 1 1 1 40960 4096\n1 2 3\n");
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].bytes, 45056u);
}

MemoryNow twoPrograms() {
  MemoryNow now;
  now.report.counters = {{"free_count", 1000}};
  now.report.totals = {{"VM_KERN_COUNT_MANAGED", 8'192'000}};
  for (int32_t pid = 1; pid <= 5; ++pid) {
    NowProcess process;
    process.pid = pid;
    process.user = pid == 1 ? "root" : "a";
    process.name = pid <= 2 ? "large" : "small \x1b[31m" + std::string(90, 'n');
    process.commandLine =
        process.name + " --with arguments that are long enough for any terminal to cut them";
    process.cgroup = pid <= 2 ? "/system.slice/large.service" : "/user.slice";
    process.anonymousBytes = pid <= 2 ? 3'000'000 : 50'000;
    if (pid != 2) process.shareBytes = process.anonymousBytes / 2;
    process.tableBytes = pid == 4 ? 9000 : 10;
    now.processes.push_back(process);
  }
  now.processes[4].isTwin = true;
  now.shared = {{"memfd", "/memfd:\n", 5'000'000, {1, 2, 3, 4, 5}}};
  now.tmpfs = {{"/dev/shm", 4096, 0}};
  return now;
}

size_t longestLine(const std::string& text) {
  size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    longest = std::max(longest, static_cast<size_t>(std::count_if(
                                    line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; })));
  }
  return longest;
}

TEST(MemoryNow, RowsAreTakenTogetherSortedAndFitTheTerminal) {
  const MemoryNow now = twoPrograms();
  const auto programs = nowRows(now.processes, NowBy::program, "size");
  ASSERT_EQ(programs.size(), 2u);
  EXPECT_EQ(programs[0].name, "large");
  EXPECT_EQ(programs[0].ownBytes, 4'500'000u);
  EXPECT_TRUE(programs[0].isUpperBound);
  EXPECT_EQ(programs[1].count, 3u);
  EXPECT_EQ(programs[1].ownBytes, 50'000u) << "a twin's memory is another's";
  EXPECT_EQ(nowRows(now.processes, NowBy::process, "tables")[0].pid, 4);
  EXPECT_EQ(nowRows(now.processes, NowBy::user, "name")[0].name, "a");

  for (const size_t width : {size_t{40}, size_t{80}, size_t{0}}) {
    for (const NowBy by : {NowBy::process, NowBy::program, NowBy::user, NowBy::cgroup}) {
      NowLayout layout;
      layout.by = by;
      layout.width = width;
      const std::string text = memoryNowText(now, layout, nullptr);
      EXPECT_EQ(text.find('\x1b'), std::string::npos);
      EXPECT_TRUE(width == 0 || longestLine(text) <= width) << text;
      EXPECT_NE(text.find(by == NowBy::cgroup ? "system.slice"
                          : by == NowBy::user ? "root"
                                              : "large"),
                std::string::npos)
          << text;
    }
  }
  auto before = nowRows(now.processes, NowBy::process, "size");
  before.erase(before.begin());  // process 2
  before[0].ownBytes -= 1'048'576;
  const std::string text = memoryNowText(now, {}, &before);
  EXPECT_NE(text.find("<= 2.9 MB  new"), std::string::npos) << text;
  EXPECT_NE(text.find("+1.0 MB"), std::string::npos) << text;
  EXPECT_NE(text.find("1, 2, 3, 4 and 1 more"), std::string::npos) << text;
}

TEST(MemoryNow, ControlGroupsAreATreeOfWhatIsAccountedToThem) {
  const std::filesystem::path mount =
      std::filesystem::temp_directory_path() / ("quorveld-cgroups-" + std::to_string(getpid()));
  const std::filesystem::path service = mount / "system.slice/large.service";
  std::filesystem::create_directories(service);
  const auto write = [](const std::filesystem::path& file, const char* text) { std::ofstream(file) << text; };
  write(mount / "cgroup.controllers", "memory pids\n");
  write(mount / "system.slice/memory.current", "9000000\n");
  write(service / "memory.current", "8000000\n");
  write(service / "memory.stat", "anon 5000000\nfile 2000000\nkernel 400000\nsock 100000\nshmem 500000\n");
  write(service / "memory.high", "max\n");
  write(service / "memory.max", "16777216\n");
  write(service / "memory.events", "low 0\nhigh 0\nmax 3\noom 1\noom_kill 1\n");
  MemoryNow now = twoPrograms();
  now.cgroups = readCgroups(mount);
  std::filesystem::remove_all(mount);
  ASSERT_EQ(now.cgroups.size(), 2u);
  const CgroupMemory& memory = now.cgroups["/system.slice/large.service"];
  EXPECT_EQ(memory.fileBytes, 1'500'000u);
  EXPECT_EQ(memory.highBytes, std::nullopt);

  NowLayout layout;
  layout.by = NowBy::cgroup;
  const std::string text = memoryNowText(now, layout, nullptr);
  EXPECT_NE(text.find("\u251C\u2500system.slice (2)\n"), std::string::npos) << text;
  EXPECT_NE(
      text.find(
          "7.6 MB  4.3 MB     1.4 MB  488 KB  488 KB  max 16.0 MB killed 1  \u2502 \u2514\u2500large.service (2)\n"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find("\u2514\u2500user.slice (3)\n"), std::string::npos) << text;
  EXPECT_TRUE(readCgroups("/nowhere").empty());
}

}  // namespace
}  // namespace quorvelctl
