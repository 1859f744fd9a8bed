#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "tests/sim/world.h"

// What becomes of a recorded hang: the report, the screen, the counters, and everything that can refuse or
// fail.

namespace quorveld {
namespace {

using namespace std::chrono_literals;
using sim::App;
using sim::Level;
using sim::Op;
using sim::Save;
using sim::World;

const std::string kTmp = "/var/root/Library/Caches/quorveld/tmp/";
const std::string kSpool = "/var/root/Library/Caches/quorveld/spool/";

TEST(HangReports, AReportIsWrittenAsideAndMovedIntoTheSpool) {
  World world;
  const App viewer = world.startApp("viewer");
  world.logs.clear();
  world.traceLibraries.culprit = std::string(127, 'r') + '\xc3';
  const size_t before = world.files.history().size();
  viewer.reportHang(7500ms, Save::yes);

  const std::string name = "MainThread-viewer-2026-01-15-100007.kelvane";
  EXPECT_EQ(world.spool(), std::vector<std::string>{name});
  EXPECT_EQ(world.files.content(kSpool + name), "TRACE");
  EXPECT_EQ(world.files.mode(kSpool + name), 0644u);
  EXPECT_EQ(
      std::vector(world.files.history().begin() + static_cast<long>(before), world.files.history().end()),
      (std::vector<std::string>{"create " + kTmp + name, "move " + kTmp + name + " " + kSpool + name}));
  EXPECT_EQ(world.files.openFiles(), 0);

  ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
  const sim::TraceRequest& request = world.traceLibraries.requests[0];
  EXPECT_EQ(request.reason,
            "{\"Reason\":\"MainThread-viewer: timeout 7500ms\",\"ServiceName\":\"MainThread\","
            "\"ProcessPath\":\"/apps/viewer\",\"PID\":501,\"ThreadID\":77,\"StartTime\":2400000000,"
            "\"EndTime\":2580000000,\"DisplayData\":[2400000000,-1]}");
  EXPECT_EQ(request.minTimestamp, 2'400'000'000u);
  EXPECT_EQ(request.maxTimestamp, 2'580'000'000u);
  EXPECT_TRUE(request.noSymbolicate);
  EXPECT_EQ(request.optionCount, 4u);

  EXPECT_EQ(world.lines(Level::info),
            (std::vector<std::string>{"viewer: Hang detected 7.50s (MainThread)",
                                      "Attempting to save kelvane at " + kTmp + name,
                                      "viewer: Moving kelvane to spool: " + kSpool + name + "\n",
                                      "viewer Log credits: Long Hang does not deduct per-app credits",
                                      "Daily Long Log credits: 25 -> 24"}));
  EXPECT_EQ(world.logs.lines.front().event, platform::LogEventKind::hang);
  EXPECT_EQ(world.logs.lines.front().pid, 501);
  const auto saved = std::find_if(world.logs.lines.begin(), world.logs.lines.end(), [](const auto& line) {
    return line.event == platform::LogEventKind::reportSaved;
  });
  ASSERT_NE(saved, world.logs.lines.end());
  EXPECT_EQ(saved->pid, 501);
  EXPECT_NEAR(saved->durationMs, 7500.0, 0.001);
  EXPECT_EQ(saved->finding, "lock " + std::string(127, 'r') + "\xef\xbf\xbd 0123456789abcdef");
  EXPECT_TRUE(world.lines(Level::standard).empty());
  EXPECT_TRUE(world.logged(Level::debug, "timestamp: 2400000000, status: -1"));
  const auto& pushed = world.analytics.distributions["com.corvix.quorvel.MainThread.com.example.viewer"];
  ASSERT_EQ(pushed.size(), 1u);
  EXPECT_NEAR(pushed[0], 7500.0, 0.001);
  EXPECT_EQ(world.analytics.distributions["com.corvix.quorvel.QVCapture"].size(), 1u);
  EXPECT_EQ(world.analytics.scalars["com.corvix.quorvel.QVWatchedProcesses"], 1);
  viewer.disconnect();
  EXPECT_EQ(world.analytics.scalars["com.corvix.quorvel.QVWatchedProcesses"], 0);
}

TEST(HangReports, WithoutASaveRequestAHangIsOnlyLoggedAndCounted) {
  World world;
  world.startApp("viewer").reportHang(1500ms, Save::no);
  EXPECT_TRUE(world.logged(Level::info, "viewer: Hang detected 1.50s (MainThread)"));
  EXPECT_EQ(world.analytics.distributions.size(), 1u);
  EXPECT_TRUE(world.spool().empty());
  EXPECT_TRUE(world.traceLibraries.requests.empty());
  EXPECT_FALSE(world.logged(Level::info, "viewer Log credits: 4 -> 3"));
}

struct Failure {
  const char* what;
  const char* counter;  ///< behind com.corvix.quorvel.
  std::function<void(World&)> arrange;
  const char* line;       ///< the beginning of it
  bool libraryIsMissing;  ///< decided once, so no later report heals it
};

TEST(HangReports, EachFailureLeavesNoFileAndSpendsNoCredit) {
  const std::string temp = kTmp + "MainThread-viewer-2026-01-15-100001.kelvane";
  const std::string notCreated =
      "viewer: Could not create file - won't take a kelvane: " + temp + " No space left on device";
  const Failure failures[] = {
      {"traces are off", "QVReportsRefused.disabled",
       [](World& world) { world.prefer("QuorvelEnableKelvane", false); },
       "viewer: Quorvel kelvane support is disabled, not saving a report!", false},
      {"no library", "QVReportsRefused.no-library",
       [](World& world) { world.faults.failAlways(Op::openLibrary); },
       "viewer: Tried to save kelvane, but kelvane support is not present on this device!", true},
      {"no entry point", "QVReportsRefused.no-library",
       [](World& world) { world.traceLibraries.entryPointMissing = true; },
       "viewer: Tried to save kelvane, but kelvane support is not present on this device!", true},
      {"no file", "QVReportsLost",
       [](World& world) { world.faults.failOnce(Op::createFile, 1, std::errc::no_space_on_device); },
       notCreated.c_str(), false},
      {"a disk that is nearly full", "QVReportsLost",
       [](World& world) { world.files.disk = {.freeBytes = 49, .totalBytes = 1000}; }, notCreated.c_str(),
       false},
      {"no JSON", "QVReportsLost", [](World& world) { world.faults.failOnce(Op::serializeJson); },
       "viewer: Unable to serialize Info Dict into JSON: ", false},
      {"no UTF-8", "QVReportsLost", [](World& world) { world.faults.failOnce(Op::encodeJson); },
       "viewer: Unable to create UTF8 string from JSON: ", false},
      {"no dump", "QVReportsLost", [](World& world) { world.traceLibraries.succeeds = false; },
       "viewer: Unable to save kelvane data to file.\n", false},
  };
  for (const Failure& failure : failures) {
    SCOPED_TRACE(failure.what);
    World world;
    const App viewer = world.startApp("viewer");
    failure.arrange(world);
    world.logs.clear();
    viewer.reportHang(1500ms, Save::yes);
    EXPECT_TRUE(world.logs.hasPrefix(Level::standard, failure.line)) << world.logs.dump();
    EXPECT_EQ(world.analytics.added[std::string("com.corvix.quorvel.") + failure.counter], 1);
    if (failure.what == std::string("no library")) {
      EXPECT_EQ(world.lines(Level::standard),
                (std::vector<std::string>{
                    "libkelvane.so is not present.",
                    "Trace library not loaded: /usr/lib/libkelvane.so: invalid ELF header", failure.line}));
    } else {
      EXPECT_EQ(world.lines(Level::standard).size(), 1u);
    }
    EXPECT_TRUE(world.spool().empty());
    EXPECT_TRUE(world.temporaryFiles().empty());
    EXPECT_EQ(world.files.openFiles(), 0);

    world.files.disk.freeBytes = 50;
    world.traceLibraries.succeeds = true;
    world.traceLibraries.entryPointMissing = false;
    world.faults.heal(Op::openLibrary);
    world.prefer("QuorvelEnableKelvane", true);
    viewer.reportHang(1500ms, Save::yes);
    EXPECT_EQ(world.spool().empty(), failure.libraryIsMissing);
    EXPECT_EQ(world.logs.count(Level::info, "viewer Log credits: 4 -> 3"), failure.libraryIsMissing ? 0 : 1);
    EXPECT_LE(world.logs.count(Level::standard, "libkelvane.so is not present."), 1);
    EXPECT_EQ(world.traceLibraries.opened.size(), 1u) << "it is looked for once";
  }
}

TEST(HangReports, NoReportIsWrittenOverOneThatCannotBeRemoved) {
  World world;
  const App viewer = world.startApp("viewer");
  const std::string temp = kTmp + "MainThread-viewer-2026-01-15-100001.kelvane";
  world.files.putFile(temp, "longer than the next report");
  world.faults.failAlways(Op::remove);
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_TRUE(world.logged(Level::standard,
                           "viewer: Could not create file - won't take a kelvane: " + temp + " File exists"));
  EXPECT_TRUE(world.spool().empty());
  EXPECT_FALSE(world.logs.has(Level::info, "viewer Log credits: 4 -> 3"));
}

TEST(HangReports, WhatIsTooOldOrTooMuchLeavesTheSpoolBeforeTheNextReport) {
  World world;
  const App viewer = world.startApp("viewer");
  const auto put = [&](const std::string& name, size_t bytes, std::chrono::seconds age = 0s) {
    world.advance(1s);
    world.files.putFile(kSpool + name, std::string(bytes, 'x'), age);
  };
  const auto removed = [&] { return world.analytics.added["com.corvix.quorvel.QVReportsRemoved.spool"]; };
  put("old.kelvane", 1, 30 * 24h);
  put("old.mine", 1, 30 * 24h);
  put("young.kelvane", 1);
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_EQ(world.spool().size(), 3u);
  EXPECT_EQ(world.files.content(kSpool + "old.kelvane"), std::nullopt);
  EXPECT_TRUE(
      world.logged(Level::standard,
                   "Removed the 1 oldest reports from /var/root/Library/Caches/quorveld/spool: more than "
                   "256 MB, or older than 30 days"));
  EXPECT_EQ(removed(), 1);

  world.prefer("QuorvelReportsMaxSize", int64_t{1});
  put("b.kelvane", 500'000);
  put("a.kelvane", 500'000);
  put("c.kelvane", 48'000);
  world.files.putFile(kSpool + "others", std::string(2'000'000, 'x'));
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_EQ(removed(), 1) << "1,048,006 of 1,048,576 bytes";
  put("d.kelvane", 2'000);
  world.faults.failOnce(Op::remove);
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_TRUE(world.logged(Level::standard,
                           "Can't remove the old report " + kSpool + "young.kelvane: Input/output error"));
  EXPECT_EQ(removed(), 1);
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_EQ(removed(), 4) << "the young one, the first report, b";
  EXPECT_EQ(world.files.content(kSpool + "b.kelvane"), std::nullopt);
  EXPECT_TRUE(world.files.content(kSpool + "a.kelvane"));

  world.prefer("QuorvelReportsMaxAge", int64_t{1});
  world.advance(24h + 10s);
  viewer.reportHang(1500ms, Save::yes);
  EXPECT_EQ(world.spool().size(), 3u) << "others', and the new one";
}

TEST(HangReports, AFailedMoveRemovesTheFileAndStillSpendsCredit) {
  for (const Op op : {Op::move, Op::closeFile}) {
    World world;
    const App viewer = world.startApp("viewer");
    world.faults.failOnce(op);
    viewer.reportHang(1500ms, Save::yes);
    EXPECT_TRUE(
        world.logged(Level::standard, "viewer: Unable to move kelvane to final path: Input/output error"));
    EXPECT_TRUE(world.logged(Level::info, "viewer Log credits: 4 -> 3"));
    EXPECT_TRUE(world.logged(Level::info, "Daily Short Log credits: 25 -> 24"));
    EXPECT_TRUE(world.spool().empty());
    EXPECT_TRUE(world.temporaryFiles().empty());
  }
}

TEST(HangReports, AReportNeverReplacesAnother) {
  World world;
  const App viewer = world.startApp("viewer");
  viewer.reportHang(1500ms, Save::yes);
  world.traceLibraries.report = "OTHER";
  viewer.send(
      {{"command", 3}, {"startTime", 1}, {"endTime", 2}, {"name", "MainThread"}, {"saveReport", true}});
  ASSERT_EQ(world.spool().size(), 1u);
  EXPECT_EQ(world.files.content(kSpool + world.spool()[0]), "TRACE");
  EXPECT_TRUE(world.logged(Level::standard, "viewer: Unable to move kelvane to final path: File exists"));
}

TEST(HangReports, OneFenceCaptureServesAllFenceHangsOfASecond) {
  World world;
  const App viewer = world.startApp("viewer");
  world.logs.clear();
  viewer.reportHang(1500ms, Save::yes, "Fence-hang");
  EXPECT_TRUE(world.spool().empty()) << "it is captured a second later";
  viewer.send({{"command", 3}, {"name", "Fence-hang"}, {"saveReport", true}});
  EXPECT_TRUE(world.logged(
      Level::standard, "viewer: Fence-hang, but waiting for FenceHangCapture - not saving another report!"));
  viewer.disconnect();
  EXPECT_EQ(viewer.memory().mappings(), 1) << "the pending capture keeps the record";

  world.advance(1s);
  EXPECT_EQ(world.spool(), std::vector<std::string>{"Fence-hang-viewer-2026-01-15-100002.kelvane"});
  EXPECT_EQ(world.logs.count(Level::info, "viewer Log credits: 4 -> 3"), 1);
  EXPECT_EQ(world.logs.count(Level::info, "Daily Short Log credits: 25 -> 24"), 1);
  EXPECT_TRUE(world.logged(Level::debug, "dealloc for viewer"));
  EXPECT_EQ(viewer.memory().mappings(), 0);
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVLogsFenceHang.PreKelvane"], 2);
  EXPECT_EQ(world.analytics.added["com.corvix.quorvel.QVReportsRefused.fence-pending"], 1);
  EXPECT_EQ(world.analytics.distributions.size(), 1u) << "but for the capture's own";
}

TEST(HangReports, AFailedFenceCaptureSpendsNothingAndMakesRoomForTheNext) {
  World world;
  const App viewer = world.startApp("viewer");
  world.traceLibraries.succeeds = false;
  viewer.reportHang(1500ms, Save::yes, "Fence-hang");
  world.advance(1s);
  EXPECT_TRUE(world.logged(Level::standard, "viewer: Unable to save kelvane data to file.\n"));
  EXPECT_FALSE(world.logged(Level::info, "viewer Log credits: 4 -> 3"));
  world.traceLibraries.succeeds = true;
  viewer.reportHang(1500ms, Save::yes, "Fence-hang");
  world.advance(1s);
  EXPECT_EQ(world.spool().size(), 1u);
}

TEST(HangReports, AHostileNameStaysInsideItsFolderAndInTheHeaderAsItCame) {
  struct Case {
    std::string name;
    std::string fileName;
    std::string inHeader;
  };
  const Case cases[] = {
      {"../../etc/passwd", "_._.._etc_passwd", "../../etc/passwd"},
      {"a/b", "a_b", "a/b"},
      {".", "_", "."},
      {"", "_", ""},
      {"-rf", "_rf", "-rf"},
      {"a\xC2\x9B\xE2\x80\xAE"
       "b\xE2\x81\xA6\xD8\x9C",
       "a__b__",
       "a\xC2\x9B\xE2\x80\xAE"
       "b\xE2\x81\xA6\xD8\x9C"},
      {"\xE2\x80\x94 \xE2\x82\xAC", "\xE2\x80\x94 \xE2\x82\xAC", "\xE2\x80\x94 \xE2\x82\xAC"},
      {"tab\there\x7f", "tab_here_", "tab\\there\x7f"},
      {"caf\xC3\xA9", "caf\xC3\xA9", "caf\xC3\xA9"},
      {"\xFF\xC3", "\xEF\xBF\xBD\xEF\xBF\xBD", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {std::string(600, 'n'), std::string(96, 'n'), std::string(512, 'n')},
      {"%s%n", "%s%n", "%s%n"},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.fileName);
    World world;
    world.startApp("viewer").reportHang(1500ms, Save::yes, item.name);
    EXPECT_EQ(world.spool(), std::vector<std::string>{item.fileName + "-viewer-2026-01-15-100001.kelvane"});
    ASSERT_EQ(world.traceLibraries.requests.size(), 1u);
    EXPECT_NE(world.traceLibraries.requests[0].reason.find("\"ServiceName\":\"" + item.inHeader + "\""),
              std::string::npos)
        << world.traceLibraries.requests[0].reason;
  }
}

TEST(HangReports, TheScreenShowsAHangForTwoSecondsOnAnInternalBuildThatWantsIt) {
  World world(World::Daemon::later);
  world.device.capabilities.insert("InternalBuild");
  world.preferences.userSets("QuorvelEnableHUD", true);
  world.start();
  const App app = world.startApp("supercalifragilistic");
  app.reportHang(1500ms, Save::no);
  const std::optional<std::string> text = "HANG:MainThread supercalif 1.50s";
  EXPECT_EQ(world.renderServer.messages, std::vector{text});
  EXPECT_TRUE(world.logged(Level::info, "Setting message to: \"HANG:MainThread supercalif 1.50s\""));
  world.advance(1999ms);
  EXPECT_EQ(world.renderServer.messages.size(), 1u);
  world.advance(1ms);
  EXPECT_EQ(world.renderServer.messages, (std::vector{text, std::optional<std::string>()}));

  app.reportHang(1500ms, Save::no, std::string(200, 'x'));
  EXPECT_EQ(world.renderServer.messages.back(), "HANG:" + std::string(94, 'x'));  // 99 in all
  world.advance(2s);
  world.faults.failOnce(Op::renderPort);
  app.reportHang(1500ms, Save::no);
  EXPECT_TRUE(world.logged(Level::standard, "Unable to get render server port!"));
  world.renderServer.messages.clear();
  world.advance(2s);
  EXPECT_EQ(world.renderServer.messages, std::vector{std::optional<std::string>()}) << "cleared all the same";

  world.renderServer.messages.clear();
  for (int i = 0; i < 1000; ++i) app.send({{"command", 3}, {"name", "flood"}});
  EXPECT_LE(world.renderServer.messages.size(), 64u) << "a flood of hangs is no flood of timers";
  world.advance(2s);
  app.reportHang(1500ms, Save::no);
  EXPECT_EQ(world.renderServer.messages.back(), "HANG:MainThread supercalif 1.50s");
  EXPECT_EQ(world.renderServer.openPorts, 0);
}

TEST(HangReports, NobodyElseGetsAMessageOnTheScreen) {
  World world;
  world.prefer("QuorvelEnableHUD", true);
  world.startApp("viewer").reportHang(1500ms, Save::no);
  world.advance(2s);
  EXPECT_EQ(world.renderServer.portRequests, 0);
}

TEST(HangReports, TheHeaderCarriesTheLastTenDisplayChangesOldestFirst) {
  World world;
  auto numbers = [] {
    std::vector<int64_t> flat;
    for (const platform::Value& value : QVProcessInfo::displayStateArray()) {
      const auto* ticks = std::get_if<uint64_t>(&value.data);
      flat.push_back(ticks ? static_cast<int64_t>(*ticks) : std::get<int64_t>(value.data));
    }
    return flat;
  };
  EXPECT_EQ(numbers(), (std::vector<int64_t>{2'400'000'000, -1}));
  for (uint64_t i = 1; i <= 10; ++i) QVProcessInfo::addDisplayStateChangeEvent(i == 5 ? 0 : i, i % 2, 9);
  std::vector<int64_t> expected;
  for (int64_t i = 1; i <= 10; ++i) {
    if (i != 5) expected.insert(expected.end(), {i, i % 2});  // a time of 0 is stored and never reported
  }
  EXPECT_EQ(numbers(), expected);
}

}  // namespace
}  // namespace quorveld
