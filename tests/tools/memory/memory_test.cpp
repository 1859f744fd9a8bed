#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_report.h"
#include "tools/memory/memory_text.h"

// Memory reports, read back from what the daemon's own tests hold its writing to.

using quorvelctl::MemoryChange;
using quorvelctl::MemoryReport;

namespace {

std::string golden() {
  std::ostringstream text;
  text << std::ifstream(GOLDEN_DIR "/memory_snapshot.ips").rdbuf();
  return text.str();
}

/// The golden report with `from` replaced.
std::string changed(const std::string& from, const std::string& to) {
  std::string text = golden();
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

MemoryReport parsed(const std::string& text) {
  std::string error;
  const auto report = quorvelctl::parseMemoryReport(text, error);
  EXPECT_TRUE(report.has_value()) << error;
  return report.value_or(MemoryReport{});
}

TEST(MemoryReportFile, IsToldLargestFirstAndCutShort) {
  const std::string text = quorvelctl::memoryText(
      parsed(changed("{ \"\" : 1 }", "{ \"VM_KERN_COUNT_MANAGED\" : 100 },\n{ \"\" : 1 }")), 2);
  EXPECT_TRUE(
      text.starts_with("memory report of 2026-01-15 10:00:00\n\n"
                       "os         Orvos \"dev\" 1.2 (?\?\?)\n"
                       "model      sim1,1\n"
                       "page size  4 KB\n\n"
                       "Where the memory is: 400 KB that the kernel hands out\n"
                       "SIZE    SHARE   WHAT\n"
                       "40 KB   10.0 %  free\n"
                       "28 KB   7.0 %   of processes, shared memory included\n"
                       "4 KB    1.0 %   kernel zones\n"))
      << text;
  EXPECT_NE(text.find("\n328 KB  82.0 %  unaccounted for\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nfaults               1099511627776\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nProcesses: 5, together 8.00 GB\n"
                      "FOOTPRINT  PRIORITY  DIRTY  ASSERTIONS                      PROCESS\n"
                      "8.00 GB    200       N      Audio,VoIP,UnknownAssertion_27  say \"hi\"?\n"
                      "12 KB      -1000     -      -                               init\n"
                      "and 3 more, 0 B (--all)\n"),
            std::string::npos)
      << text;
}

/// The golden report of a machine of `managedPages` whose "Wired" has `entries` too.
std::string withWired(int managedPages, const std::string& entries) {
  return changed("{ \"\" : 1 }",
                 "{ \"VM_KERN_COUNT_MANAGED\" : " + std::to_string(managedPages) + " },\n" + entries);
}

TEST(MemoryReportFile, UsesAreNamedAndTheAccountIsDoubtedWhereItIsOff) {
  const std::string uses =
      R"({ "VM_KERN_MEMORY_100" : 4 }, { "VM_KERN_MEMORY_102" : 5 }, { "VM_KERN_MEMORY_104" : 6 }, { "VM_KERN_MEMORY_MLOCK" : 9 },
{ "VM_KERN_COUNT_100" : 3 })";
  const MemoryReport closed = parsed(withWired(29, uses));
  const std::string text = quorvelctl::memoryText(closed, 9);
  for (const char* line :
       {"16 KB  13.8 %  shared memory: tmpfs, memfd, SysV, shared mappings\n",
        "20 KB  17.2 %  compressed swap (zram)\n", "24 KB  20.7 %  free, in lists of each CPU\n",
        "12 KB  10.3 %  of processes alone\n", "0 B    0.0 %   unaccounted for\n\n",
        "36 KB  locked (mlock), in other figures too\n", "12 KB   swapped out\n",
        // the sum of footprints is beyond what the machine has
        "together 8.00 GB, more than the 24 KB that they have: forks hold pages together (<=)",
        "\n<= 0 B     0         -      -                               No_Name\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
  EXPECT_EQ(text.find("<= 8.00 GB"), std::string::npos) << "only one runs that program";
  EXPECT_EQ(text.find("VM_KERN_MEMORY_100"), std::string::npos);

  const auto doubt = [&](int managedPages, const std::string& from, const std::string& to) {
    std::string report = withWired(managedPages, uses);
    report.replace(report.find(from), from.size(), to);
    return quorvelctl::memoryText(parsed(report), 9);
  };
  EXPECT_NE(doubt(20, "kmalloc-8", "kmalloc-8")
                .find("The figures contradict each other: together they are 36 KB more than that.\n"),
            std::string::npos);
  EXPECT_NE(doubt(40, "kmalloc-8", "kmalloc-cg-1k")
                .find("Likely behind it: pipes (8 KB of zone kmalloc-cg-1k), pages that a driver"),
            std::string::npos);
}

TEST(MemoryReportFile, WithoutVmCountersSaysSo) {
  const std::string whole = golden();
  const size_t begin = whole.find("\"page_size\"");
  const std::string counters = whole.substr(begin, whole.find('\n', begin) - begin);
  const std::string text =
      quorvelctl::memoryText(parsed(changed(counters, "\"error\" : \"host_statistics64 failed\"")), 9);
  EXPECT_NE(text.find("No VM counters: host_statistics64 failed\n"), std::string::npos) << text;
  EXPECT_NE(text.find("page size  4 KB (assumed)"), std::string::npos) << text;
}

TEST(MemoryReportFile, ACutOffFirstLineIsReadAndWhatIsBrokenIsRefused) {
  std::string cutOff = golden();
  cutOff = cutOff.substr(0, 45) + cutOff.substr(cutOff.find('\n') + 1);
  EXPECT_EQ(parsed(cutOff).processes.size(), 5u);

  std::string error;
  for (const size_t length : {size_t{0}, size_t{20}, size_t{120}, size_t{500}, golden().size() - 2}) {
    EXPECT_FALSE(quorvelctl::parseMemoryReport(golden().substr(0, length), error)) << length;
  }
  const std::string deep(100'000, '[');
  for (const auto& [from, to] : std::initializer_list<std::pair<std::string, std::string>>{
           {"\"page_size\" : 4096", "\"page_size\" : 0"},
           {"\"page_size\" : 4096", "\"page_size\" : 4294967296"},
           {"\"free_count\" : 10", "\"free_count\" : 18446744073709551615"},
           {"\"Footprint\":3", "\"Footprint\":-3"},
           {"\"Footprint\":3", "\"Footprint\":281474976710656"},
           {"\"Priority\":-1000", "\"Priority\":\"high\""},
           {"[\"Audio\"", "[7,\"Audio\""},
           {"\"Zones\"", "\"Regions\""},
           {"{ \"ext4\" : 3 }", "{ \"ext4\" : 3, \"xfs\" : 4 }"},
           {"{ \"ext4\" : 3 }", deep}}) {
    error.clear();
    EXPECT_FALSE(quorvelctl::parseMemoryReport(changed(from, to), error)) << to.substr(0, 60);
    EXPECT_FALSE(error.empty());
  }
}

TEST(MemoryDiff, TakesProcessesOfOneNameTogetherAndPutsTheLargestChangeFirst) {
  const MemoryReport older = parsed(golden());
  const MemoryReport newer =
      parsed(changed("{\"ProcessName\":\"init\", \"Priority\":-1000, \"Footprint\":3, \"Dirty\":\"-\"},",
                     R"({"ProcessName":"No_Name", "Priority":0, "Footprint":2, "Dirty":"-"},
{"ProcessName":"viewer", "Priority":0, "Footprint":9, "Dirty":"-"},)"));
  const auto diff = quorvelctl::diffOf(older, newer);
  EXPECT_EQ(diff.processes,
            (std::vector<MemoryChange>{
                {"viewer", 0, 36864, 0, 1}, {"init", 12288, 0, 1, 0}, {"No_Name", 0, 8192, 2, 3}}));
  EXPECT_TRUE(diff.zones.empty());
  EXPECT_EQ(quorvelctl::memoryDiffText(older, newer, 2),
            "from 2026-01-15 10:00:00 to 2026-01-15 10:00:00\n\n"
            "Processes, those of one name together\n"
            "CHANGE  OLD    NEW    COUNT   PROCESS\n"
            "+36 KB  0 B    36 KB  0 -> 1  viewer\n"
            "-12 KB  12 KB  0 B    1 -> 0  init\n"
            "and 1 more, +8 KB (--all)\n\n"
            "Kernel zones: no change\n\n"
            "Other uses of memory: no change\n\n"
            "Kernel consumers: no change\n\n"
            "Kernel totals: no change\n\n"
            "VM counters: no change\n");

  const MemoryReport busier = parsed(
      changed("\"free_count\" : 10,\"active_count\" : 20", "\"free_count\" : 8,\"active_count\" : 20"));
  const std::string text = quorvelctl::memoryDiffText(older, busier, 2);
  EXPECT_NE(text.find("\nCHANGE  OLD    NEW    COUNTER\n-8 KB   40 KB  32 KB  free_count\n"),
            std::string::npos)
      << text;
}

}  // namespace
