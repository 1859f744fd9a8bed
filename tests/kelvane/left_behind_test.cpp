#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"
#include "tests/kelvane/frozen_targets.h"
#include "tests/kelvane/hang_target.h"
#include "tests/patience.h"

// What the kernel holds up for good costs the reports of whom it belongs to.

namespace kelvane_test {
namespace {

using namespace std::chrono_literals;
using quorveld::tests::eventually;

constexpr uid_t kRoot = 0;
constexpr uid_t kNobody = 65534;
constexpr uid_t kThird = 65533;

std::string textOf(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// The processes of this test's captures that are there. Others may be under way on this machine: the root
/// tells them apart, the one thing of ours that they inherit.
std::vector<pid_t> captureProcesses() {
  std::vector<pid_t> found;
  static const std::string root = "/tmp/kelvane-left-behind-" + std::to_string(getpid());
  setenv("QUORVELD_ROOT", root.c_str(), 1);
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const pid_t pid = atoi(entry.path().filename().c_str());
    if (pid == 0) continue;
    const auto stat = kelvane::parseStat(textOf(entry.path() / "stat"));
    const bool isCapture = stat && stat->comm == "kelvane-capture" && stat->state != 'Z';
    if (isCapture && textOf(entry.path() / "environ").find(root) != std::string::npos) found.push_back(pid);
  }
  return found;
}

TEST(LeftBehind, AProcessThatWaitsInAFrozenFileStillHasStacks) {
  FrozenTargets frozen("waits-in-file", {kRoot});
  if (!frozen.problem().empty()) GTEST_SKIP() << frozen.problem();
  const Dump held = dumpOnceOf(frozen.pid(0), frozen.thread(0));
  EXPECT_TRUE(held.whole);
  EXPECT_LT(held.took, kelvane::kReportBudget);
  EXPECT_NE(held.whyLeftOut("process").find("the kernel held up"), std::string::npos);
  EXPECT_TRUE(contains(held.stackOf(frozen.thread(0)), "waitsForWord")) << held.report["metadata"];
  EXPECT_EQ(held.thread(frozen.thread(0))["syscallName"], "futex");
}

TEST(LeftBehind, AFrozenProcessCostsItsOwnReportsAlone) {
  FrozenTargets frozen("runs-file", {kRoot});
  if (!frozen.problem().empty()) GTEST_SKIP() << frozen.problem();
  ASSERT_TRUE(captureProcesses().empty());
  HangTarget victim("kinds");
  const Dump before = dumpOf(victim.pid(), victim.thread());
  // Who waits for what the kernel holds up takes the whole budget more than a report takes on this machine.
  const auto waiting = before.took + kelvane::kCaptureBudget;
  const size_t descriptors = settledDescriptors(victim);
  const Dump held = dumpOnceOf(frozen.pid(0), frozen.thread(0));
  EXPECT_TRUE(held.whole);
  EXPECT_LT(held.took, kelvane::kReportBudget);
  EXPECT_NE(held.whyLeftOut("process").find("the kernel held up"), std::string::npos);
  // What could be had is there: where the thread is, in a file that can't be opened.
  EXPECT_TRUE(contains(held.stackOf(frozen.thread(0)), "0+0x4")) << held.report["metadata"];
  EXPECT_NE(held.whyLeftOut("user stacks").find("held up a file"), std::string::npos);
  ASSERT_TRUE(eventually([] { return captureProcesses().size() == 1; })) << "one that no signal ends";
  EXPECT_EQ(openDescriptors(), descriptors + 1);

  const Dump other = dumpOf(victim.pid(), victim.thread());
  EXPECT_TRUE(other.whole);
  EXPECT_LT(other.took, waiting);
  EXPECT_EQ(other.whyLeftOut("process"), "");
  EXPECT_TRUE(contains(other.stackOf(victim.thread()), "waitsInRead"));
  const Dump again = dumpOnceOf(frozen.pid(0), frozen.thread(0));
  EXPECT_LT(again.took, waiting);
  EXPECT_NE(again.whyLeftOut("process").find("an earlier capture of it"), std::string::npos);
  EXPECT_EQ(captureProcesses().size(), 1u);

  frozen.thaw();
  EXPECT_TRUE(eventually([] { return captureProcesses().empty(); }));
  EXPECT_EQ(settledDescriptors(victim), descriptors);
}

/// As the daemon's does against a second one.
TEST(LeftBehind, TheCallersEndFreesItsLock) {
  FrozenTargets frozen("runs-file", {kRoot});
  if (!frozen.problem().empty()) GTEST_SKIP() << frozen.problem();
  ASSERT_TRUE(captureProcesses().empty());
  const std::string path = testing::TempDir() + "kelvane-lock-" + std::to_string(getpid());
  const pid_t caller = fork();
  if (caller == 0) {
    const int lock = open(path.c_str(), O_RDWR | O_CREAT, 0600);  // without close-on-exec
    _exit(flock(lock, LOCK_EX) == 0 && dumpOnceOf(frozen.pid(0), frozen.thread(0)).whole ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(caller, &status, 0), caller);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(captureProcesses().size(), 1u);
  const kelvane::UniqueFd lock(open(path.c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  unlink(path.c_str());
}

/// The process without rights, in which foreign files are read.
pid_t parsingProcess() {
  for (const pid_t pid : captureProcesses()) {
    if (textOf("/proc/" + std::to_string(pid) + "/status").find("Seccomp:\t2") != std::string::npos)
      return pid;
  }
  return 0;
}

/// It waits for a file that can't be opened, and so can be met.
TEST(LeftBehind, ACrashOfParsingCostsStacksAndNotTheReport) {
  FrozenTargets frozen("runs-file", {kRoot});
  if (!frozen.problem().empty()) GTEST_SKIP() << frozen.problem();
  ASSERT_TRUE(captureProcesses().empty());
  Dump dump;
  // On a busy machine that process may be over before it was found.
  EXPECT_TRUE(eventually([&] {
    std::atomic<bool> isOver = false;
    std::thread crash([&] {
      for (pid_t pid = 0; !isOver && !(pid > 0 && kill(pid, SIGXCPU) == 0); pid = parsingProcess())
        std::this_thread::sleep_for(1ms);
    });
    dump = dumpOnceOf(frozen.pid(0), frozen.thread(0));
    isOver = true;
    crash.join();
    return dump.whyLeftOut("user stacks").find("ended by a signal (CPU time limit exceeded)") !=
           std::string::npos;
  })) << dump.report["metadata"]["leftOut"];
  EXPECT_TRUE(dump.whole);
  EXPECT_EQ(dump.thread(frozen.thread(0))["name"], "frozen");
  EXPECT_FALSE(contains(dump.stackOf(frozen.thread(0)), "0+0x"));
}

TEST(LeftBehind, UsersHaveTheirShareOfCapturesThatAreHeldUp) {
  std::vector<uid_t> users(kelvane::kMaxLeftBehindOfUser + 1, kRoot);
  users.resize(2 * users.size(), kNobody);
  users.push_back(kThird);
  FrozenTargets frozen("runs-file", users);
  if (!frozen.problem().empty()) GTEST_SKIP() << frozen.problem();
  ASSERT_TRUE(captureProcesses().empty());
  HangTarget victim("kinds");
  std::map<uid_t, std::vector<size_t>> ofUser;  // they start in any order
  for (size_t i = 0; i < users.size(); i++) {
    struct stat status {};
    ASSERT_EQ(stat(("/proc/" + std::to_string(frozen.pid(i))).c_str(), &status), 0);
    ofUser[status.st_uid].push_back(i);
  }
  const auto whyNot = [&](size_t index) {
    return dumpOnceOf(frozen.pid(index), frozen.thread(index)).whyLeftOut("process");
  };
  for (const uid_t user : {kRoot, kNobody}) {
    std::vector<std::thread> captures;
    captures.reserve(kelvane::kMaxLeftBehindOfUser);
    for (size_t i = 0; i < kelvane::kMaxLeftBehindOfUser; i++)
      captures.emplace_back([&, index = ofUser[user][i]] { whyNot(index); });
    for (std::thread& capture : captures) capture.join();
    EXPECT_NE(whyNot(ofUser[user].back()).find("4 captures of this user's processes are"), std::string::npos);
  }
  EXPECT_NE(whyNot(ofUser[kThird][0]).find("8 captures are"), std::string::npos);
  EXPECT_EQ(captureProcesses().size(), kelvane::kMaxLeftBehind);
  const Dump other = dumpOf(victim.pid(), victim.thread());
  EXPECT_TRUE(other.whole);
  EXPECT_NE(other.whyLeftOut("process"), "");
  EXPECT_EQ(other.report["metadata"]["verdict"]["evidence"]["source"], "one look");

  frozen.thaw();
  EXPECT_TRUE(eventually([&] { return captureProcesses().empty(); }));
  EXPECT_EQ(dumpOf(victim.pid(), victim.thread()).whyLeftOut("process"), "");
}

}  // namespace
}  // namespace kelvane_test
