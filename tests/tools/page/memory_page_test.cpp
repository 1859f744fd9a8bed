#include <gtest/gtest.h>

#include "tests/tools/page/times_in.h"
#include "tools/memory/memory_list.h"
#include "tools/page/memory_html.h"

using quorvelctl::memoryPage;
using quorvelctl::MemoryReport;

namespace {

constexpr uint64_t kMiB = 1 << 20;

/// A machine of 1 GiB; every text is `name`.
MemoryReport reportAt(int hour, uint64_t faults, const std::string& name) {
  MemoryReport report;
  report.timestamp = "2026-03-01-" + std::string(hour < 10 ? "0" : "") + std::to_string(hour) + "0000";
  report.osVersion = report.model = name;
  report.counters = {
      {"faults", faults}, {"free_count", 100 * kMiB / 4096}, {"internal_page_count", 300 * kMiB / 4096}};
  report.totals = {{"VM_KERN_COUNT_MANAGED", 1024 * kMiB}};
  report.processes = {{name, 0, 200 * kMiB, name, {name}}, {name + "2", 0, 50 * kMiB, "-", {}}};
  report.zones = {{name, 30 * kMiB}};
  report.consumers = {{name, 5 * kMiB}};
  return report;
}

/// Three starts of the machine: of three reports, of one, and of two.
std::vector<MemoryReport> threeStarts(const std::string& name) {
  return {reportAt(1, 1000, name), reportAt(2, 2000, name), reportAt(3, 3000, name),
          reportAt(4, 10, name),   reportAt(5, 1, name),    reportAt(6, 500, name)};
}

TEST(MemoryPage, DrawsTheAccountUpToTheTotalAndNothingAcrossARestart) {
  const std::string page = memoryPage(threeStarts("viewer"));
  EXPECT_EQ(timesIn(page, "<svg"), 3u);
  EXPECT_EQ(timesIn(page, "class=\"restart\""), 6u) << "two in each picture";
  EXPECT_NE(page.find("6 reports from 2026-03-01 01:00:00 to 2026-03-01 06:00:00 · 2 restarts between"),
            std::string::npos);
  const size_t free = page.find("class=\"area k10\" d=\"");
  ASSERT_NE(free, std::string::npos);
  const std::string path = page.substr(free, page.find("</path>", free) - free);
  EXPECT_EQ(timesIn(path, "M "), 3u);
  EXPECT_EQ(timesIn(path, ",0.0"), 3u + 2u + 2u) << "with what is free all of it is accounted for: " << path;
  EXPECT_NE(page.find("624.0 MB</b>"), std::string::npos) << "unaccounted for";
  EXPECT_NE(page.find("Likely behind it: "), std::string::npos);

  EXPECT_EQ(timesIn(page, "class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\""),
            timesIn(page, "<table"));
  EXPECT_EQ(timesIn(page, "<th"), timesIn(page, "<th scope=") + timesIn(page, "<table"));

  const std::string single = memoryPage({reportAt(1, 1000, "viewer")});
  EXPECT_EQ(timesIn(single, "<svg"), 0u);
  EXPECT_NE(single.find("<td>viewer</td><td class=\"number\">200.0 MB</td>"), std::string::npos);

  std::vector<MemoryReport> wrongTimes = threeStarts("viewer");
  wrongTimes.front().timestamp = "-999-01-01-000000";
  wrongTimes[2].timestamp = "9999-01-01-000000";
  wrongTimes.back().timestamp = "9998-12-31-235959";
  EXPECT_LT(timesIn(memoryPage(wrongTimes), "class=\"time\""), 30u);

  MemoryReport blind = reportAt(7, 600, "viewer");
  blind.counters.clear();
  blind.vmError = "host_statistics64 failed";
  EXPECT_NE(memoryPage({blind}).find("no account: host_statistics64 failed"), std::string::npos);
  std::vector<MemoryReport> withBlind = threeStarts("viewer");
  withBlind.insert(withBlind.begin() + 1, blind);
  EXPECT_EQ(timesIn(memoryPage(withBlind), ",0.0"), timesIn(page, ",0.0")) << "it would be drawn as nothing";
}

TEST(MemoryPage, NothingOfAReportBecomesMarkup) {
  const std::string hostile = "</style><script>f()</script><img src=\"x\" onerror='f()'>{{report}}&amp;";
  const std::string harmless = memoryPage(threeStarts("X"));
  const std::string page = memoryPage(threeStarts(hostile));
  for (const char* markup : {"<", ">", "\"", "'"})
    EXPECT_EQ(timesIn(page, markup), timesIn(harmless, markup));
  EXPECT_GT(timesIn(page, "&lt;script&gt;"), 8u);
}

TEST(MemoryList, TellsBootsFromTheNewestOn) {
  std::vector<quorvelctl::MemoryListEntry> entries;
  for (const MemoryReport& report : threeStarts("viewer")) entries.push_back(listEntryOf(report));
  tellBoots(entries);
  const std::string text = memoryListText(entries, 3);
  EXPECT_NE(text.find("2026-03-01 03:00:00  -2    0 B   1.00 GB  100.0 MB  200.0 MB viewer"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("2026-03-01 04:00:00  -1 "), std::string::npos) << text;
  EXPECT_NE(text.find("2026-03-01 06:00:00  0 "), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("and 3 older (--all)\n")) << text;
}

}  // namespace
