#include "tools/launches/activation.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tools/launches/activation_text.h"
#include "tools/launches/launch_notify.h"
#include "tools/launches/launch_record.h"
#include "tools/launches/launches_by_app.h"

using quorvelctl::ActivationReader;

namespace {

constexpr uint64_t kHash = uint64_t{7} << 32;  ///< the upper word of identifiers

std::string cost(uint64_t identifier, uint64_t user, uint64_t legacy, uint64_t background, uint64_t read,
                 int life) {
  return nlohmann::json{
      {"UniqueID", identifier},       {"TotalCPU_ms", user},      {"QOSDisabled_ms", 0},
      {"QOSUserInteractive_ms", 0},   {"QOSUserInitiated_ms", 0}, {"QOSDefault_ms", legacy},
      {"QOSUtility_ms", 0},           {"QOSMaintenance_ms", 0},   {"QOSBackground_ms", background},
      {"IOReads_kb", read},           {"IOWrites_kb", 0},         {"PageIns", 0},
      {"ProcessLifecycleState", life}}
      .dump();
}

std::string line(const std::string& costs, const std::string& names, int result = 0) {
  return R"({"activationData":{"Timestamp":810000000.5,"ActivationID":)" +
         std::to_string(uint64_t{0x98968000} << 32 | 41) + R"(,"UniqueID":)" + std::to_string(kHash | 41) +
         R"(,"SystemUptime":100,"BundleID":"com.example.\u001b[31mviewer","ActivationDuration_ms":1500,)" +
         R"("ActivationResult":)" + std::to_string(result) + R"(,"ActivationType":1,"ActivationFlags":)" +
         std::to_string(3 << 13 | 2) + R"(},"cpuData":{)" + costs +
         R"(},"vmData":{"1":{"FreeQueue":2048,"PageIns":10,"PageOuts":0,"Faults":5,"SwapIns":0},)"
         R"("2":{"FreeQueue":1024,"PageIns":266,"PageOuts":0,"Faults":905,"SwapIns":256}},"processData":{)" +
         names + "}}\n";
}

std::string name(uint64_t identifier, const std::string& text) {
  return '"' + std::to_string(identifier) + R"(":{"UniqueID":)" + std::to_string(identifier) +
         R"(,"ProcessName":")" + text + "\"}";
}

TEST(Activations, AreToldWithWhoSpentMostFirst) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::string costs = R"("0":)" + cost(kHash | 41, 200, 300, 0, 0, 0) + R"(,"1":)" +
                            cost(kHash | 42, 10, 0, 1200, 4096, 1) + R"(,"3":)" +
                            cost(kHash | 43, 0, 0, 0, 0, 2) + R"(,"4":)" + cost(kHash | 44, 0, 0, 0, 8, 0) +
                            R"(,"-1":)" + cost(~uint64_t{0}, 3, 4, 0, 0, 0);
  ActivationReader reader;
  reader.read(line("", name(kHash | 44, "old")) +
              line(costs, name(kHash | 41, "viewer") + "," + name(kHash | 42, "helper") + "," +
                              name(kHash | 43, "gone")));
  ASSERT_EQ(reader.activations().size(), 2u);
  EXPECT_EQ(
      quorvelctl::activationText(reader.activations()[1], 4096),
      "2026-09-02 00:00:00  com.example.?[31mviewer  launch in 1.50 s, ok, end heard 150 ms late\n"
      "  CPU     USER    READ    WRITTEN  PAGE-INS  PID  PROCESS\n"
      "  1.20 s  10 ms   4.0 MB  -        -         42   helper, born\n"
      "  300 ms  200 ms  -       -        -         41   viewer, the application\n"
      "  -       -       8 KB    -        -         44   old\n"
      "  4 ms    3 ms    -       -        -              2 others together\n"
      "  ended: gone (43)\n"
      "  machine: 4.0 MB free (-4.0 MB), 1.0 MB read in, 0 B written out, 900 faults, 1.0 MB swapped in\n");
  const uint64_t identifier = quorvelctl::activationIdentifierOf(line("", "")).value_or(0);
  EXPECT_TRUE(quorvelctl::isActivationOf(identifier, 41, 0x98968000));
  EXPECT_FALSE(quorvelctl::isActivationOf(identifier, 42, 0x98968000));
  EXPECT_FALSE(quorvelctl::isActivationOf(identifier, 41, 0x98968001));
}

TEST(Activations, NamesCarryOverAndBrokenLinesAreCounted) {
  ActivationReader reader;
  const std::string app = R"("0":)" + cost(kHash | 41, 0, 1, 0, 0, 0);
  reader.read(line(app, name(kHash | 41, "viewer")) + "{\"activationData\":3}\n\xff\n[]\n\n");
  reader.read(line(app, "") + line(R"("0":)" + cost(kHash * 2 | 41, 0, 1, 0, 0, 0), "", 33) +
              line(R"("0":)" + cost(kHash | 50, 0, 1, 0, 0, 0), "") + line(R"("0":{"UniqueID":"x"})", "") +
              line(app, "").substr(0, 40));  // a line under way is none
  EXPECT_EQ(reader.brokenLines(), 5u);
  ASSERT_EQ(reader.activations().size(), 4u);
  EXPECT_EQ(reader.activations()[1].processes[0].name, "viewer");
  EXPECT_EQ(reader.activations()[2].processes[0].name, "was viewer");
  EXPECT_EQ(reader.activations()[3].processes[0].name, "");
  const auto json = quorvelctl::activationJson(reader.activations()[2]);
  EXPECT_EQ(json["result"], 33);
  EXPECT_EQ(json["startedAt"], "2026-09-02T00:00:00Z");
  EXPECT_EQ(json["processes"][0]["cpuMsByClass"]["legacy"], 1);
  EXPECT_EQ(json["vm"]["end"]["SwapIns"], 256);
}

TEST(Activations, ShowWhoSpentItInTheSystemOrByChildren) {
  std::string text =
      line(R"("0":)" + cost(kHash | 41, 2, 2, 0, 0, 0) + R"(,"-1":)" + cost(~uint64_t{0}, 3, 900, 0, 0, 0),
           name(kHash | 41, "cc"));
  text.replace(
      text.rfind("}\n"), 2,
      R"(,"moreData":{"41":{"ProcessName":"cc","ChildCPU_ms":5600},)"
      R"("9":{"ProcessName":"dd","CPU_ms":880},"8":{"ProcessName":"make","CPU_ms":20,"ChildCPU_ms":7}}})"
      "\n");
  ActivationReader reader;
  reader.read(text);
  ASSERT_EQ(reader.activations().size(), 1u);
  const std::string shown = quorvelctl::activationText(reader.activations()[0], 4096);
  EXPECT_NE(
      shown.find("  2 ms    2 ms  -     -        -         41   cc, the application\n"
                 "  5.60 s  -     -     -        -              its children that ended\n"
                 "  7 ms    -     -     -        -              children of make (8) that ended\n"
                 "  900 ms  3 ms  -     -        -              2 others together, most by dd (9) 880 ms, "
                 "make (8) 20 ms\n"),
      std::string::npos)
      << shown;
}

TEST(Activations, ByApplicationTheSlowestIsFirstWithWhatChanged) {
  constexpr double kDay = 86400, kNow = 800'000'000;
  std::vector<quorvelctl::Activation> launches;
  const auto launched = [&](const char* app, double daysAgo, uint64_t ms, int result = 0) {
    quorvelctl::Activation launch;
    launch.bundleID = app;
    launch.launch = true;
    launch.result = result;
    launch.startedAt = kNow - daysAgo * kDay;
    launch.durationMs = ms;
    launches.push_back(launch);
  };
  for (uint64_t i = 1; i <= 10; ++i) launched("a", 8, i * 100);  // median 500, 90 % in 900
  for (uint64_t i = 0; i < 3; ++i) launched("a", 1, 750);
  launched("b", 2, 4000);
  launched("b", 2, 9, 32);  // no launch that was seen
  launched("b", 30, 4100);
  const auto apps = quorvelctl::launchesByApp(launches, kNow);
  EXPECT_EQ(quorvelctl::launchesByAppText(apps),
            "MEDIAN  90 % IN  SLOWEST  LAUNCHES  THIS WEEK  LAST WEEK  CHANGE  APPLICATION\n"
            "4.00 s  4.10 s   4.10 s   2         4.00 s     -          new     b\n"
            "700 ms  900 ms   1.00 s   13        750 ms     500 ms     +50 %   a\n");
  EXPECT_EQ(quorvelctl::launchesByAppJson(apps)[1]["changePercent"], 50);
}

TEST(Activations, WhatEndedBeforeItBeganTookNoTime) {
  std::string text = line("", "");
  text.replace(text.find(":1500,"), 6, ":" + std::to_string(UINT32_MAX - 4) + ",");  // -5 ms
  ActivationReader reader;
  reader.read(text);
  ASSERT_EQ(reader.activations().size(), 1u);
  EXPECT_NE(quorvelctl::activationText(reader.activations()[0], 4096).find("ended before it began"),
            std::string::npos);
  EXPECT_TRUE(quorvelctl::activationJson(reader.activations()[0])["durationMs"].is_null());
}

TEST(Notifications, AreReadByTheLine) {
  EXPECT_TRUE(quorvelctl::hasLine("STATUS=up\nREADY=1\n", "READY=1"));
  for (const char* text : {"", "\n", "READY=10", "READY=0", "STATUS=READY=1", "XREADY=1"})
    EXPECT_FALSE(quorvelctl::hasLine(text, "READY=1")) << text;
}

TEST(AppendedLines, NoneIsLostWhenTheFileIsReplaced) {
  std::string folder = std::filesystem::temp_directory_path() / "quorveld-lines-XXXXXX";
  ASSERT_TRUE(mkdtemp(folder.data()));
  const std::string path = folder + "/log";
  const auto append = [&](const char* text) { std::ofstream(path, std::ios::app) << text; };
  using Lines = std::vector<std::string>;
  append("before\n");
  quorvelctl::AppendedLines appended(path);
  append("one\ntw");
  EXPECT_EQ(appended.next(), Lines{"one"});
  append("o\n");
  std::filesystem::rename(path, path + ".1");
  append("three\n");
  EXPECT_EQ(appended.next(), (Lines{"two", "three"}));
  EXPECT_EQ(appended.next(), Lines{});
  std::filesystem::remove_all(folder);
}

}  // namespace
