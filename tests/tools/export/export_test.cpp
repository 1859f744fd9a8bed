#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tools/export/report_line.h"
#include "tools/export/since.h"
#include "tools/report/verdict_text.h"

using quorvelctl::Report;

namespace {

Report report() {
  Report made;
  made.header = {.reason = "r",
                 .serviceName = "MainThread",
                 .processPath = "/usr/bin/viewer",
                 .pid = 41,
                 .threadId = 41,
                 .startTicks = 24'000'000,
                 .endTicks = 228'000'000,
                 .display = {}};
  quorvelctl::ReportThread thread;
  thread.hung = true;
  thread.userStack = {{.name = "futex_wait", .module = "/lib/libc.so.6", .buildId = "ab", .offset = 16}};
  made.threads.push_back(thread);
  made.verdict.emplace();
  made.verdict->cause = "lock";
  made.verdict->sentence = "It waited\nfor worker.";
  made.verdict->spent = {{"sleeping", 8330.5}};
  return made;
}

TEST(Export, AReportIsOneFlatLine) {
  const auto line = quorvelctl::reportLine(report(), "a.kelvane", 1'772'359'200, "tablet-7");
  const std::string text = line.dump();
  EXPECT_EQ(text.find('\n'), std::string::npos);
  for (const auto& [key, value] : line.items()) EXPECT_TRUE(value.is_primitive()) << key;
  EXPECT_EQ(line["writtenAt"], "2026-03-01T10:00:00Z");
  EXPECT_EQ(line["durationMs"], 8500);
  EXPECT_EQ(line["sleepingMs"], 8330.5);
  EXPECT_TRUE(line["culprit"].is_null()) << "nobody is known";
  EXPECT_TRUE(line["version"].is_null());
  EXPECT_TRUE(line["signature"].is_null()) << "it has none";

  Report withChain = report();
  withChain.verdict->chain = {
      {.thread = {41, "viewer", 41, "viewer"}, .text = {}, .sureness = {}, .evidence = {}, .function = {}},
      {.thread = {44, "writer", 43, "db"},
       .text = {},
       .sureness = {},
       .evidence = {},
       .function = {},
       .isCulprit = true}};
  EXPECT_EQ(quorvelctl::culpritOf(withChain), "db/writer");
}

TEST(Export, SinceIsAnAgeADateOrATime) {
  setenv("TZ", "UTC", 1);
  tzset();
  constexpr time_t kNow = 1'772'359'200;
  using quorvelctl::sinceTime;
  EXPECT_EQ(sinceTime("90m", kNow), kNow - 5400);
  EXPECT_EQ(sinceTime("7d", kNow), kNow - 7 * 86400);
  EXPECT_EQ(sinceTime("2w", kNow), kNow - 14 * 86400);
  EXPECT_EQ(sinceTime("2026-03-01", kNow), kNow - 10 * 3600);
  EXPECT_EQ(sinceTime("2026-03-01T10:00:00Z", kNow), kNow);
  for (const char* none :
       {"", "d", "-1d", "7", "7y", "+7d", " 7d", "99999999999999999999d", "2026-13-01", "2026-03-01x"})
    EXPECT_FALSE(sinceTime(none, kNow)) << none;
}

}  // namespace
