#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "abi/kelvane.h"
#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "kelvane/sampling/sampled_thread.h"
#include "kelvane/threads/thread_facts.h"
#include "tests/kelvane/hang_target.h"
#include "tests/patience.h"

namespace kelvane_test {
namespace {

using namespace std::chrono_literals;
using quorveld::tests::eventually;

/// How many samplers this process has, ended ones included.
size_t samplers() {
  size_t found = 0;
  for (const pid_t pid : kelvane::listNumbersAt(AT_FDCWD, "/proc", kelvane::kMaxProcessesScanned)) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const auto stat =
        kelvane::parseStat(kelvane::readFileAt(AT_FDCWD, path.c_str(), kelvane::kMaxProcFileBytes).text);
    found += stat && stat->parent == getpid() && stat->comm == "kelvane-capture";
  }
  return found;
}

/// The library's sampling, told to end when this does.
class Sampling {
 public:
  Sampling()
      : sample_(reinterpret_cast<kelvane_sample_function>(
            dlsym(dlopen(KELVANE_LIBRARY, RTLD_LAZY), KELVANE_SAMPLE_ENTRY_POINT))) {}
  ~Sampling() {
    eventually([&] {
      order({});
      return samplers() == 0;
    });
  }
  std::string order(const std::vector<kelvane_pending>& pending) {
    const char* why = sample_(pending.data(), pending.size());
    return why ? why : "";
  }

 private:
  kelvane_sample_function sample_;
};

uint64_t cpuTimeNs(pid_t pid) {
  clockid_t clock = 0;
  timespec now{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &now) != 0) return 0;
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

/// How often the thread has waited.
uint64_t waitsOf(const HangTarget& target) {
  const std::string path = "/proc/" + std::to_string(target.thread()) + "/status";
  const auto status = kelvane::readFileAt(AT_FDCWD, path.c_str(), kelvane::kMaxProcFileBytes);
  return kelvane::parseStatusNumber(status.text, "voluntary_ctxt_switches");
}

/// Why this process can't sample itself; empty: it can.
std::string whyNoSampling() {
  int error = 0;
  if (kelvane::SampledThread::begin(getpid(), getpid(), error)) return {};
  return "perf events: " + kelvane::errorText(error);
}

TEST(Sampling, AHangThatComputesAndWaitsIsToldWithItsShares) {
  const HangTarget victim("turns");
  Sampling sampling;
  const kelvane_pending pending = {victim.pid(), 0, static_cast<uint64_t>(victim.thread()), 0};
  EXPECT_EQ(sampling.order({pending}), "");
  if (const std::string why = whyNoSampling(); !why.empty()) {
    EXPECT_TRUE(eventually([&] { return sampling.order({pending}) == why; }));
    EXPECT_EQ(samplers(), 0u) << "it isn't tried again";
    GTEST_SKIP() << why;
  }
  EXPECT_EQ(samplers(), 1u);
  Dump dump;
  Json table;
  double cpuShare = 0;
  // The header's hang is one of the last 1.5 seconds. The sampler may need a moment to begin, and who is
  // hardly given a CPU to come to its next wait.
  EXPECT_TRUE(eventually([&] {
    const uint64_t waitsBefore = waitsOf(victim);
    const uint64_t cpuBefore = cpuTimeNs(victim.pid());
    const uint64_t before = kelvane::monotonicNs();
    std::this_thread::sleep_for(1500ms);
    const uint64_t waits = waitsOf(victim) - waitsBefore;
    dump = dumpOf(victim.pid(), victim.thread());
    cpuShare = static_cast<double>(cpuTimeNs(victim.pid()) - cpuBefore) /
               static_cast<double>(kelvane::monotonicNs() - before);
    table = dump.report["metadata"].value("sampled", Json());
    return table.is_object() && table["durationMs"] > 1450 && waits > 1;
  })) << table;
  expectOpensInViewers(dump.report);

  Json sums = table["notSeen"];
  Json crunches = Json::object();
  Json waits = Json::object();
  for (const Json& place : table["places"]) {
    std::vector<std::string> path;
    for (std::string id = place["sf"]; !id.empty(); id = dump.report["stackFrames"][id].value("parent", ""))
      path.push_back(dump.report["stackFrames"][id]["name"]);
    EXPECT_TRUE(contains(path, "worksInTurns")) << place;
    for (const char* part : {"onCpuMs", "readyMs", "waitedMs"})
      sums[part] = sums[part].get<double>() + place[part].get<double>();
    Json& sum = contains(path, "waitsItsTurn") ? waits : crunches;
    for (const char* part : {"onCpuMs", "readyMs", "waitedMs"})
      sum[part] = sum.value(part, 0.0) + place[part].get<double>();
  }
  const double durationMs = table["durationMs"];
  EXPECT_NEAR(sums["onCpuMs"].get<double>() + sums["readyMs"].get<double>() + sums["waitedMs"].get<double>(),
              durationMs, 1);
  EXPECT_NEAR(sums["onCpuMs"].get<double>() / durationMs, cpuShare, 0.1) << table;
  EXPECT_GT(crunches["onCpuMs"], 0.9 * sums["onCpuMs"].get<double>()) << table;
  // However much others had the CPU.
  EXPECT_LT(crunches["waitedMs"], 0.05 * durationMs) << table;
  EXPECT_GT(waits["waitedMs"], 0) << table;
  if (!dump.whyLeftOut("kernel stacks of samples").empty()) return;
  const auto sleepsInKernel = [&](const Json& place) {
    const Json& frame = dump.report["stackFrames"][place["sf"].get<std::string>()];
    const std::string name = frame["name"];
    return frame["category"] == "kernel" && name.find('+') == std::string::npos &&
           contains({name}, "nanosleep");
  };
  EXPECT_TRUE(std::any_of(table["places"].begin(), table["places"].end(), sleepsInKernel)) << table;
}

TEST(Sampling, OnlyThreadsOfTheProcessItselfAreSampled) {
  const HangTarget victim("sleepers", 3);
  const HangTarget other("sleepers", 1);
  int error = 0;
  const auto own = kelvane::SampledThread::begin(victim.pid(), victim.thread(), error);
  if (!own) GTEST_SKIP() << kelvane::errorText(error);
  EXPECT_EQ(kelvane::readKeptSamples(own->encoded()).tid, victim.thread());
  for (const int64_t lie : {int64_t{other.thread()}, int64_t{getpid()}, int64_t{0}, int64_t{-1}, INT64_MAX}) {
    const auto stranger = kelvane::SampledThread::begin(victim.pid(), lie, error);
    ASSERT_TRUE(stranger) << lie;
    EXPECT_EQ(kelvane::readKeptSamples(stranger->encoded()).tid, victim.pid()) << "the main thread stands in";
  }
  EXPECT_FALSE(kelvane::SampledThread::begin(INT32_MAX, 1, error));

  // Nor does a thread that can't be sampled spoil it for the others.
  Sampling sampling;
  std::vector<kelvane_pending> pending = {{INT32_MAX, 5, 1, 1}, {-1, 5, 1, 2}, {0, 5, 1, 3}};
  pending.push_back({victim.pid(), 6, static_cast<uint64_t>(victim.thread()), UINT64_MAX});
  Dump dump;
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(sampling.order(pending), "");
    dump = dumpOf(victim.pid(), victim.thread());
    return dump.report["metadata"].contains("sampled");
  }));
  double ranMs = 0;
  for (const Json& place : dump.report["metadata"]["sampled"]["places"])
    ranMs += place["onCpuMs"].get<double>();
  EXPECT_LT(ranMs, 5) << "it slept, and was not woken for it";
}

/// A header of a launch names no process; what is drawn of it stands in that one's track all the same.
TEST(Sampling, ALaunchHasTheSamplesOfItsProcesssFirstThread) {
  if (const std::string why = whyNoSampling(); !why.empty()) GTEST_SKIP() << why;
  const HangTarget victim("sleepers", 2);
  Sampling sampling;
  const Library library;
  const kelvane_launch launch = {victim.pid(), 0};
  Dump dump;
  EXPECT_TRUE(eventually([&] {
    sampling.order({{victim.pid(), 7, 0, 0}});
    std::this_thread::sleep_for(200ms);
    library.launch(&launch);
    dump = dumpBy(library, headerOf(0, 0).dump().c_str());
    const Json& metadata = dump.report["metadata"];
    return metadata.contains("sampled") && metadata["verdict"]["evidence"]["source"] == "samples";
  })) << dump.text.substr(0, 4000);
  expectOpensInViewers(dump.report);
  EXPECT_TRUE(dump.report["threads"].empty()) << "nothing was looked at";
  EXPECT_EQ(dump.report["metadata"]["capture"]["stoppedUs"], 0);
  const Json& places = dump.report["metadata"]["sampled"]["places"];
  ASSERT_FALSE(places.empty()) << "it has waited since before";
  EXPECT_EQ(dump.report["stackFrames"][places[0]["sf"].get<std::string>()]["category"], "kernel");
  const auto isOnItsTrack = [&](const Json& event) {
    return event["pid"] == victim.pid() && event["tid"] == victim.pid();
  };
  for (const Json& event : dump.report["traceEvents"]) {
    const std::string kind = event.value("cat", "");
    EXPECT_TRUE((kind != "hang" && kind != "kernel" && kind != "sample") || isOnItsTrack(event)) << event;
  }
}

TEST(Sampling, AThreadIsFollowedIntoAnotherProgramAndToItsEnd) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    char go = 0;
    if (read(ends[0], &go, 1) == 1) execl("/bin/sleep", "sleep", "1000", nullptr);
    _exit(127);
  }
  const kelvane::UniqueFd process(open(("/proc/" + std::to_string(pid)).c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(eventually([&] { return kelvane::readThreadState(process.get(), pid) == 'S'; }));
  int error = 0;
  const auto thread = kelvane::SampledThread::begin(pid, 0, error);
  if (thread) {
    const auto keptNow = [&] {
      thread->collect();
      return kelvane::readKeptSamples(thread->encoded());
    };
    const kelvane::KeptSamples before = keptNow();
    EXPECT_EQ(before.executedNs, 0u);
    EXPECT_EQ(before.waits.size(), 1u) << "once, however often it is looked at";
    const std::string function = before.waits.empty() ? "" : before.waits[0].function;
    EXPECT_NE(function.find("pipe"), std::string::npos) << function;
    EXPECT_EQ(write(ends[1], "", 1), 1);
    EXPECT_TRUE(eventually([&] { return keptNow().executedNs != 0; }));
    const kelvane::KeptSamples after = keptNow();
    EXPECT_TRUE(thread->goesOn());
    EXPECT_EQ(after.comm, "sleep");
    EXPECT_EQ(after.startTicks, before.startTicks);
    EXPECT_NE(after.startStack, before.startStack);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    const kelvane::KeptSamples last = keptNow();
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(keptNow().marks.back().atNs, last.marks.back().atNs) << "what it did afterwards, nobody did";
    EXPECT_TRUE(thread->goesOn()) << "what is kept of it is not forgotten";
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  for (const int end : ends) close(end);
  if (!thread) GTEST_SKIP() << kelvane::errorText(error);
}

}  // namespace
}  // namespace kelvane_test
