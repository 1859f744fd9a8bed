#include "tools/memory/memory_growth.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <functional>
#include <random>

#include "tools/memory/memory_series.h"

// What grows among what goes up and down, over a simulated week of hourly reports.

namespace quorvelctl {
namespace {

constexpr double kMiB = 1 << 20;
constexpr int kHoursOfThreeDays = 72;

/// `bytes(hour)` with noise of 20 MiB up and down.
std::vector<GrowthPoint> noisy(int hours, unsigned seed, const std::function<double(double)>& bytes) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> noise(-20 * kMiB, 20 * kMiB);
  std::vector<GrowthPoint> points;
  for (int hour = 0; hour < hours; ++hour) points.push_back({1.0 * hour, bytes(hour) + noise(random)});
  return points;
}

bool leaks(const std::vector<GrowthPoint>& points) {
  const auto trend = trendOf(points);
  return trend && trend->grew() && trend->goesOn();
}

TEST(MemoryTrend, ALeakOfAMegabyteAnHourIsFoundInThreeDaysAndNothingElseIsTakenForOne) {
  int found = 0;
  int within = 0;
  constexpr int kSeeds = 40;
  for (unsigned seed = 0; seed < kSeeds; ++seed) {
    SCOPED_TRACE(seed);
    const auto leak = noisy(kHoursOfThreeDays, seed, [](double hour) { return 300 * kMiB + hour * kMiB; });
    const auto trend = trendOf(leak);
    found += leaks(leak);
    within += std::abs(trend->bytesPerHour - kMiB) <= trend->plusMinus;

    EXPECT_FALSE(leaks(noisy(kHoursOfThreeDays, seed, [](double) { return 300 * kMiB; })));
    // A cache: full after a third of the time, or ever more slowly.
    EXPECT_FALSE(leaks(noisy(168, seed, [](double hour) { return std::min(hour * 10, 560.0) * kMiB; })));
    EXPECT_FALSE(
        leaks(noisy(168, seed, [](double hour) { return 900 * kMiB * (1 - std::exp(-hour / 30)); })));
    // More once, as after an update; day and night; a program that starts anew each day.
    EXPECT_FALSE(leaks(noisy(168, seed, [](double hour) { return hour < 70 ? 0 : 400 * kMiB; })));
    EXPECT_FALSE(
        leaks(noisy(168, seed, [](double hour) { return 200 * kMiB * std::sin(hour * M_PI / 12); })));
    EXPECT_FALSE(leaks(noisy(168, seed, [](double hour) { return std::fmod(hour, 24) * 10 * kMiB; })));
  }
  EXPECT_GE(found, kSeeds - 1);
  EXPECT_GE(within, kSeeds * 8 / 10);

  std::vector<GrowthPoint> spiked = noisy(168, 1, [](double hour) { return hour * kMiB; });
  for (size_t i = 3; i < spiked.size(); i += 9) spiked[i].bytes += 4000 * kMiB;  // while something is built
  EXPECT_TRUE(leaks(spiked));
  EXPECT_TRUE(leaks(noisy(5000, 1, [](double hour) { return hour * kMiB; })))
      << "more than is looked at one by one";
  EXPECT_FALSE(trendOf(noisy(kLeastGrowthReports - 1, 1, [](double hour) { return hour * kMiB; })));
  EXPECT_FALSE(trendOf(std::vector<GrowthPoint>(50, GrowthPoint{7, 1}))) << "all of one moment";
}

/// Hourly reports of a week: "leaky" grows by 2 MiB an hour, in two processes; the cache fills within two
/// days.
std::vector<MemoryReport> week(int startHour) {
  std::mt19937 random(7);
  std::uniform_int_distribution<uint64_t> noise(0, 20 << 20);
  std::vector<MemoryReport> reports;
  for (uint64_t hour = 0; hour < 168; ++hour) {
    MemoryReport report;
    const time_t at = 1'760'000'000 + static_cast<time_t>(hour) * 3600;
    char text[32];
    tm local{};
    std::strftime(text, sizeof text, "%Y-%m-%d-%H%M%S", localtime_r(&at, &local));
    report.timestamp = text;
    const uint64_t sinceStart =
        static_cast<int>(hour) < startHour ? hour : hour - static_cast<uint64_t>(startHour);
    report.counters = {{"faults", 1000 + sinceStart * 1000},
                       {"free_count", 1000},
                       {"external_page_count", 256 * std::min<uint64_t>(hour * 40, 2000)}};
    report.totals = {{"VM_KERN_COUNT_MANAGED", uint64_t{16} << 30}};
    report.processes = {{"leaky", 0, noise(random) + (sinceStart << 20), "-", {}},
                        {"leaky", 0, (uint64_t{30} << 20) + (sinceStart << 20), "-", {}},
                        {"steady", 0, noise(random), "-", {}}};
    if (hour % 5 == 0) report.processes.push_back({"now and then", 0, noise(random) * 50, "-", {}});
    report.zones = {{"dentry", (uint64_t{50} << 20) + noise(random)}};
    reports.push_back(report);
  }
  return reports;
}

TEST(MemoryGrowth, OfASimulatedWeekNamesTheLeakAndNotTheCacheAndKnowsTheRestart) {
  const MemoryGrowth growth = growthOf(week(168));
  ASSERT_EQ(growth.growing.size(), 1u) << "the cache has been full for days";
  EXPECT_EQ(growth.growing[0].kind + " " + growth.growing[0].name, "process leaky");
  EXPECT_NEAR(growth.growing[0].trend.bytesPerHour, 2 * kMiB, growth.growing[0].trend.plusMinus);
  EXPECT_EQ(growth.beforeStart, 0u);

  const MemoryGrowth restarted = growthOf(week(100));
  EXPECT_EQ(restarted.beforeStart, 100u);
  EXPECT_EQ(restarted.reports, 68u);
  EXPECT_EQ(restarted.from, week(100)[100].timestamp);
  ASSERT_EQ(restarted.growing.size(), 1u);

  const std::string text = memoryGrowthText(restarted, 20);
  EXPECT_NE(text.find("68 reports from 2025-"), std::string::npos) << text;
  EXPECT_NE(text.find("\n100 before the machine's last start are left aside\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" MB/h +- "), std::string::npos) << text;
  EXPECT_NE(text.find("  process  leaky\n"), std::string::npos) << text;

  const std::vector<MemoryReport> all = week(168);
  EXPECT_NE(memoryGrowthText(growthOf({all.begin(), all.begin() + 5}), 20).find("Too few"),
            std::string::npos);
  EXPECT_EQ(growthOf({}).reports, 0u);
  EXPECT_EQ(hoursOf("2026-13"), std::nullopt);
  EXPECT_EQ(hoursOf("2026-01-02-030405x"), std::nullopt);
}

TEST(MemorySeries, TakesTogetherWhatHasNoColourAndLosesNothing) {
  std::vector<MemoryReport> reports = week(100);
  reports[3].counters.clear();  // has no account
  const MemorySeries series = seriesOf(reports, 1);
  ASSERT_EQ(series.hours.size(), 167u);
  EXPECT_EQ(series.starts.front(), 0u);
  EXPECT_EQ(series.starts.back(), 1u);
  EXPECT_EQ(series.processes.size(), 1u);
  EXPECT_EQ(series.processes[0].name, "now and then")
      << "the largest of all, though most of the time nothing";
  std::vector<std::string> names;
  for (const MemorySeries::Line& line : series.account) names.push_back(line.name);
  EXPECT_EQ(names, (std::vector<std::string>{"file cache", kUnaccounted, "free"}));
  for (size_t i = 0; i < series.hours.size(); ++i) {
    double sum = 0;
    for (const MemorySeries::Line& line : series.account) sum += line.bytes[i];
    EXPECT_EQ(sum, series.totalBytes);
  }

  for (MemoryReport& report : reports)
    report.consumers = {{"VM_KERN_MEMORY_CPU", 7 << 20}, {"VM_KERN_MEMORY_PTE", 5 << 20}};
  const MemorySeries crowded = seriesOf(reports, 1);
  ASSERT_EQ(crowded.account.size(), 4u);
  EXPECT_EQ(crowded.account[1].name, "all else that is known");
  EXPECT_EQ(crowded.account[1].bytes[50], 12 * kMiB);
}

}  // namespace
}  // namespace quorvelctl
