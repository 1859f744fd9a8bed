#include <gtest/gtest.h>

#include "tests/tools/page/times_in.h"
#include "tools/page/launches_html.h"

namespace {

constexpr double kNow = 800'000'000;
constexpr double kDayS = 24 * 3600;

/// Launches a day apart up to `now`, that took so long.
std::vector<quorvelctl::Activation> launchesOf(const std::string& bundleID,
                                               std::vector<uint64_t> durationsMs) {
  std::vector<quorvelctl::Activation> launches(durationsMs.size());
  for (size_t i = 0; i < launches.size(); ++i) {
    launches[i].startedAt = kNow - kDayS * (static_cast<double>(launches.size() - i) - 0.5);
    launches[i].bundleID = bundleID;
    launches[i].launch = true;
    launches[i].durationMs = durationsMs[i];
  }
  return launches;
}

std::string pageOf(const std::vector<quorvelctl::Activation>& launches) {
  return launchesPage(quorvelctl::launchesByApp(launches, kNow), kNow);
}

TEST(LaunchesPage, DrawsEveryLaunchAndSaysWhatChanged) {
  auto all = launchesOf("slow", {100, 100, 100, 100, 100, 100, 100, 150, 150, 150, 150, 150, 150, 9000});
  const auto fresh = launchesOf("fresh", {40, 50});
  all.insert(all.end(), fresh.begin(), fresh.end());
  const std::string page = pageOf(all);
  EXPECT_EQ(timesIn(page, "<svg"), 2u);
  EXPECT_EQ(timesIn(page, " h 0 "), 16u);
  EXPECT_EQ(timesIn(page, "class=\"dots k8\""), 1u) << "what is older than a week";
  EXPECT_NE(page.find("<b>slow</b>: +50 %, 100 ms → 150 ms"), std::string::npos);
  EXPECT_NE(page.find("<b>fresh</b>: new, 40 ms"), std::string::npos);
  EXPECT_EQ(timesIn(page, "class=\"median"), 3u);
  EXPECT_NE(page.find("300 ms+"), std::string::npos) << "one that took seconds makes no line of the others";
  EXPECT_NE(page.find(",0.0 h 0"), std::string::npos) << "it is at the upper edge";
  EXPECT_EQ(timesIn(page, "<script"), 0u);
  EXPECT_EQ(timesIn(page, "script-src"), 0u);

  // One alone, that took no time and began after the page was made.
  auto early = launchesOf("early", {0});
  early[0].startedAt = kNow + kDayS / 2;
  const std::string one = pageOf(early);
  EXPECT_EQ(timesIn(one, " h 0 "), 1u);
  EXPECT_EQ(timesIn(one, "nan") + timesIn(one, "inf"), 0u);
}

TEST(LaunchesPage, LaunchesOfAWrongClockLeaveTheOthersTheirRoomAndTheirWeek) {
  auto all = launchesOf("app", {10, 10, 10});
  const std::string right = pageOf(all);
  auto wrong = launchesOf("app", {900, 900});
  wrong[0].startedAt = -978'307'000;  // a machine without a clock, just started
  wrong[1].startedAt = kNow + 40 * kDayS;
  all.insert(all.end(), wrong.begin(), wrong.end());
  const std::string page = pageOf(all);
  EXPECT_EQ(timesIn(page, " h 0 "), 3u);
  EXPECT_EQ(timesIn(page, "median of this week: 10 ms"), 1u);
  EXPECT_EQ(timesIn(page, "; 2 of them not drawn, the clock was wrong then"), 1u);
  const auto launchesLine = [](const std::string& text) {
    const size_t begin = text.find(" from ");
    return text.substr(begin, text.find(" to ") - begin);
  };
  EXPECT_EQ(launchesLine(page), launchesLine(right));
}

TEST(LaunchesPage, NothingOfANameBecomesMarkup) {
  const std::string hostile = "</style><script>f()</script><img src=\"x\" onerror='f()'>{{content}}&amp;";
  const std::string harmless = pageOf(launchesOf("X", {10, 20, 30}));
  const std::string page = pageOf(launchesOf(hostile, {10, 20, 30}));
  for (const char* markup : {"<", ">", "\"", "'"})
    EXPECT_EQ(timesIn(page, markup), timesIn(harmless, markup));
  EXPECT_GT(timesIn(page, "&lt;script&gt;"), 2u);
}

}  // namespace
