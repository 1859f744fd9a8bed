#include "platform/linux/outputs/power_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>

#include "tests/linux/scratch_root.h"
#include "tests/sim/sim_platform.h"

namespace quorveld::linux_platform {
namespace {

using sim::LogLine;
using sim::SimPlatform;

constexpr char kLog[] = "var/log/quorveld/activations.jsonl";
constexpr char kLeftOut[] = "var/log/quorveld/activations-left-out.jsonl";

platform::ActivationEvent eventOf(std::string bundle) {
  platform::ActivationEvent event;
  event.activationData = {{"BundleID", {std::move(bundle)}}, {"ActivationID", {uint64_t{1} << 63}}};
  event.cpuData = {{"-1", {platform::Dictionary{{"TotalCPU_ms", {int64_t{3}}}}}}};
  return event;
}

class PowerLog : public testing::Test {
 protected:
  int failures() const {
    return static_cast<int>(std::count_if(
        sim_.logs.lines.begin(), sim_.logs.lines.end(),
        [](const LogLine& line) { return line.text.starts_with("Failed to append an activation"); }));
  }

  const ScratchRoot root_;
  SimPlatform sim_;
  LinuxPowerLog log_;
};

TEST_F(PowerLog, AnEventIsOneLineOfJson) {
  log_.handOver(eventOf("a\"\n\x01ü"));
  log_.handOver(eventOf("b"));
  const std::string text = root_.read(kLog);
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  EXPECT_EQ(text.substr(text.find('\n') + 1),
            R"({"activationData":{"BundleID":"b","ActivationID":9223372036854775808},)"
            R"("cpuData":{"-1":{"TotalCPU_ms":3}},"vmData":{},"processData":{}})"
            "\n");
  EXPECT_EQ(nlohmann::json::parse(text.substr(0, text.find('\n')))["activationData"]["BundleID"],
            "a\"\n\x01ü");
}

TEST_F(PowerLog, WhatIsLeftOutIsNotedInAFileThatStaysSmall) {
  log_.leaveOut(uint64_t{1} << 63, "full");
  EXPECT_EQ(root_.read(kLeftOut), "{\"ActivationID\":9223372036854775808,\"Reason\":\"full\"}\n");
  for (int i = 0; i < 2000; ++i) log_.leaveOut(1, "full");
  EXPECT_LE(root_.read(kLeftOut).size(), LinuxPowerLog::kMaxLeftOutBytes);
}

TEST_F(PowerLog, TheBeginningOfALineThatADeadDaemonLeftIsTakenBack) {
  log_.handOver(eventOf("whole"));
  const std::string whole = root_.read(kLog);
  for (const std::string& rest : {std::string("{\"half"), std::string(10'000, 'x')}) {
    root_.write(kLog, whole + rest);
    log_.handOver(eventOf("whole"));
    EXPECT_EQ(root_.read(kLog), whole + whole);
  }
  root_.write(kLog, std::string(10'000, 'x'));
  log_.handOver(eventOf("whole"));
  EXPECT_EQ(root_.read(kLog), whole);
}

TEST_F(PowerLog, AFullFileMakesRoomAndTheOneBeforeGoes) {
  log_.handOver(eventOf("0"));
  const std::string line = root_.read(kLog);
  LinuxPowerLog bounded(2 * line.size());
  for (const char* bundle : {"1", "2", "3", "4", "5"}) bounded.handOver(eventOf(bundle));
  const auto bundles = [&](const std::string& path) {
    std::string all;
    std::istringstream lines(root_.read(path));
    for (std::string one; std::getline(lines, one);) {
      all += nlohmann::json::parse(one)["activationData"]["BundleID"].get<std::string>();
    }
    return all;
  };
  EXPECT_EQ(bundles(kLog), "45");
  EXPECT_EQ(bundles(std::string(kLog) + ".1"), "23");

  bounded.handOver(eventOf(std::string(2 * line.size(), 'x')));  // would fit in no file
  EXPECT_EQ(bundles(kLog), "45");
  EXPECT_EQ(failures(), 1);
}

TEST_F(PowerLog, AFailureIsLoggedOnceAStreakAndALinkIsNotFollowed) {
  root_.write("victim", "untouched");
  root_.write(kLog, "");
  std::filesystem::remove(root_ / kLog);
  std::filesystem::create_symlink(root_ / "victim", root_ / kLog);
  log_.handOver(eventOf("lost"));
  log_.handOver(eventOf("lost"));
  EXPECT_EQ(failures(), 1);
  EXPECT_EQ(root_.read("victim"), "untouched");
  const std::string note =
      R"({"ActivationID":9223372036854775808,"Reason":"Too many levels of symbolic links"})"
      "\n";
  EXPECT_EQ(root_.read(kLeftOut), note + note) << "whoever waits is told of each";

  std::filesystem::remove(root_ / kLog);
  log_.handOver(eventOf("kept"));
  log_.handOver(eventOf("\xff no UTF-8"));
  EXPECT_EQ(failures(), 2);
  const std::string text = root_.read(kLog);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

}  // namespace
}  // namespace quorveld::linux_platform
