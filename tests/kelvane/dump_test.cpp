#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "client/include/quorvel.h"
#include "kelvane/base/limits.h"
#include "tests/kelvane/hang_target.h"
#include "tests/patience.h"

namespace kelvane_test {

namespace {

using namespace std::chrono_literals;
using quorveld::tests::eventually;

/// They are told to root with CAP_SYS_ADMIN, by kernels that can.
bool kernelStacksAreTold() {
  std::ifstream stack("/proc/self/stack");
  return stack.get() != EOF;
}

TEST(Dump, ShowsEveryThreadOfAHungProcessWithTheHungOneFirst) {
  HangTarget victim("kinds");
  Dump dump;
  // A look wakes the thread it stops, and on a busy machine one may not stop in time.
  EXPECT_TRUE(eventually([&] {
    dump = dumpOf(victim.pid(), victim.thread());
    const Json& threads = dump.report["threads"];
    return std::all_of(threads.begin(), threads.end(), [](const Json& thread) {
      return !thread.contains("noStack") && (thread["name"] == "spinner" || thread["state"] == "sleeping");
    });
  }));
  ASSERT_TRUE(dump.whole);
  expectOpensInViewers(dump.report);

  const Json header = headerOf(victim.pid(), victim.thread());
  for (const char* key : {"Reason", "ServiceName", "ProcessPath", "PID", "ThreadID", "DisplayData"}) {
    EXPECT_EQ(dump.report["metadata"][key], header[key]) << key;
  }
  EXPECT_EQ(dump.report["metadata"]["writtenBy"], "kelvane " QV_VERSION);
  EXPECT_GT(dump.report["metadata"]["host"]["cpus"], 0);
  EXPECT_EQ(dump.report["metadata"]["capture"]["threads"], 5);
  ASSERT_EQ(dump.report["threads"].size(), 5u);
  EXPECT_EQ(dump.report["threads"][0]["tid"], victim.thread());
  EXPECT_EQ(dump.report["threads"][0]["name"], "reader");
  EXPECT_EQ(dump.report["threads"][0]["hung"], true);

  const std::map<std::string, std::string> functions = {{"reader", "waitsInRead"},
                                                        {"sleeper", "sleepsForEver"},
                                                        {"spinner", "spinsForEver"},
                                                        {"mu\"tex\uFFFD", "waitsForMutex"}};
  for (const Json& thread : dump.report["threads"]) {
    auto function = functions.find(thread["name"]);
    auto stack = dump.stackOf(thread["tid"]);
    if (function != functions.end()) {
      EXPECT_TRUE(contains(stack, function->second)) << thread;
    }
    EXPECT_FALSE(thread.contains("stackCutOff")) << thread;
    EXPECT_EQ(thread["state"], thread["name"] == "spinner" ? "running" : "sleeping");
    if (thread["name"] == "reader") {
      EXPECT_EQ(thread["syscallName"], "read");
    }
    if (thread["name"] == "reader" && kernelStacksAreTold()) {
      EXPECT_TRUE(contains(stack, "pipe_read"));
    }
    if (thread["name"] == "spinner") {
      EXPECT_GT(thread["userMs"], 0);
    }
  }
}

TEST(Dump, TheHangIsAnIntervalThatHoldsTheHungThreadsStack) {
  HangTarget victim("kinds");
  Dump dump = dumpOf(victim.pid(), victim.thread());
  double startUs = dump.report["metadata"]["StartTime"].get<double>() / 24;
  double endUs = dump.report["metadata"]["EndTime"].get<double>() / 24;
  std::vector<std::string> names;
  for (const Json& event : dump.report["traceEvents"]) {
    if (event["ph"] != "X" || event["tid"] != victim.thread()) continue;
    EXPECT_NEAR(event["ts"].get<double>(), startUs, 0.01);
    EXPECT_NEAR(event["dur"].get<double>(), endUs - startUs, 0.01);
    names.push_back(event["name"]);
  }
  ASSERT_GT(names.size(), 4u);
  EXPECT_EQ(names[0], "MainThread");
  EXPECT_EQ(names[1].find("sleeping"), 0u);
  EXPECT_TRUE(contains(names, "waitsInRead"));
  // The capture comes after the hang, on the same clock.
  EXPECT_GT(dump.report["metadata"]["capture"]["ts"].get<double>(), endUs);
}

/// Without names, an address must still lead to its function: by module, offset and build-id.
TEST(Dump, WithoutNamesFramesSayModuleOffsetAndBuildId) {
  HangTarget victim("kinds");
  Dump named = dumpOf(victim.pid(), victim.thread());
  Dump bare = dumpOf(victim.pid(), victim.thread(), /*symbolicate=*/false);
  EXPECT_EQ(bare.text.find("waitsInRead"), std::string::npos);
  std::set<std::string> offsetsOfFunction, offsetsInBare;
  for (const Json& frame : named.report["stackFrames"]) {
    std::string name = frame["name"];
    if (name.find("waitsInRead") != std::string::npos) offsetsOfFunction.insert(frame["offset"]);
  }
  for (const Json& frame : bare.report["stackFrames"]) {
    if (frame["category"] == "kelvane_victim") {
      EXPECT_EQ(frame["module"], KELVANE_VICTIM);
      EXPECT_EQ(frame["name"], "kelvane_victim+" + frame["offset"].get<std::string>());
      offsetsInBare.insert(frame["offset"]);
    }
    if (frame["category"] == "libc.so.6") {
      EXPECT_GE(frame["build_id"].get<std::string>().size(), 16u);
    }
  }
  ASSERT_EQ(offsetsOfFunction.size(), 1u);
  EXPECT_TRUE(offsetsInBare.contains(*offsetsOfFunction.begin()));

  // Loaded at other addresses, it hangs in the same way.
  HangTarget again("kinds");
  for (const Dump* first : {&named, &bare}) {
    Dump second = dumpOf(again.pid(), again.thread(), first == &named);
    EXPECT_EQ(second.report["metadata"]["signature"], first->report["metadata"]["signature"]);
    EXPECT_EQ(second.report["metadata"]["verdict"]["function"],
              first->report["metadata"]["verdict"]["function"]);
  }
}

TEST(Dump, NamesWhoHoldsWhatTheThreadWaitsFor) {
  HangTarget victim("mutex");
  const Dump hung = dumpOf(victim.pid(), victim.thread());
  Json lock = hung.report["metadata"]["verdict"];
  EXPECT_EQ(lock["cause"], "lock") << lock;
  ASSERT_EQ(lock["chain"].size(), 2u) << lock;
  EXPECT_EQ(lock["chain"][0]["waitsFor"]["tid"], victim.pid()) << "the main thread took it";
  EXPECT_EQ(lock["chain"][1]["culprit"], "slept") << lock;
  EXPECT_STREQ(hung.finding.cause, "lock");
  EXPECT_EQ(hung.finding.culprit, lock["chain"][1]["name"].get<std::string>());
  EXPECT_EQ(hung.finding.signature, hung.report["metadata"]["signature"].get<std::string>());

  // Its stack is copied before it is known to stay there, and the copy has it begin its sleep anew, which on
  // a busy machine can take longer than is waited for.
  std::string where;
  for (int more = 0; more < 20 && where.empty(); more++) {
    HangTarget fresh("mutex");
    const Dump again = dumpOf(fresh.pid(), fresh.thread());
    where = again.report["metadata"]["verdict"]["chain"][1].value("function", "");
  }
  EXPECT_NE(where.find("sleepsForEver"), std::string::npos) << where;

  // A process that waits for this one, through each end in turn: a byte in a pipe, an answer through a
  // socket.
  for (const char* through : {"pipe", "Unix socket"}) {
    int ends[2];
    ASSERT_EQ(through == std::string("pipe") ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    pid_t child = fork();
    if (child == 0) {
      char byte;
      pollfd ready{ends[0], POLLIN, 0};
      close(ends[1]);
      if (through == std::string("pipe")) _exit(read(ends[0], &byte, 1) < 0);
      _exit(poll(&ready, 1, -1) < 0);
    }
    close(ends[0]);
    // Each look makes the call start anew, and must not hide it from the next.
    for (int look = 0; look < 2; look++) {
      Json verdict;
      Dump dump;
      // This process is in the call that makes the report. It must stop for its stack, which a busy machine
      // may not let it do in time.
      EXPECT_TRUE(eventually([&] {
        dump = dumpOf(child, child);
        verdict = dump.report["metadata"]["verdict"];
        const Json culprit = dump.thread(getpid());
        const bool isShown = contains(dump.stackOf(getpid()), "main") && culprit.contains("frames");
        return verdict["cause"] == "peer" && culprit.is_object() && culprit["pid"] == getpid() &&
               (isShown || (geteuid() != 0 && culprit.contains("noStack")));
      })) << dump.text;
      expectOpensInViewers(dump.report);
      EXPECT_EQ(verdict["chain"][1]["pid"], getpid()) << verdict;
      EXPECT_EQ(verdict["chain"][0]["waitsFor"]["object"], std::string("a ") + through);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[1]);
  }
}

/// bpf(2) and sockets of this family are refused from here on, as a service's sandbox refuses them.
bool refuseBpfAndSockets(uint32_t family) {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_bpf, 3, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, family, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {std::size(steps), steps};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(Dump, WithoutBpfItAsksElsewhereAndSaysWhenItMayNot) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const pid_t waiting = fork();
  if (waiting == 0) {
    char byte;
    close(ends[1]);
    _exit(read(ends[0], &byte, 1) < 0);
  }
  constexpr int kNoFilter = 77;
  const pid_t looking = fork();
  if (looking == 0) {
    if (!refuseBpfAndSockets(AF_MAX)) _exit(kNoFilter);
    const bool found = eventually([&] {
      const Dump dump = dumpOf(waiting, waiting);
      return dump.report["metadata"]["verdict"]["cause"] == "peer" &&
             (dump.whyLeftOut("kernel stacks").empty() || !kernelStacksAreTold());
    });
    if (!found || !refuseBpfAndSockets(AF_NETLINK)) _exit(1);
    const bool said = eventually([&] {
      const Dump dump = dumpOf(waiting, waiting);
      return dump.whyLeftOut("other end of the socket").find("sock_diag: Address family not supported") !=
             std::string::npos;
    });
    _exit(said ? 0 : 2);
  }
  int status = 0;
  waitpid(looking, &status, 0);
  kill(waiting, SIGKILL);
  waitpid(waiting, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoFilter) GTEST_SKIP() << "no system call filters here";
  EXPECT_EQ(status, 0);
}

/// Ten threads are stopped one after the other, each only while its stack is copied.
TEST(Dump, TenThreadsStandStillForUnderTwoMilliseconds) {
  HangTarget victim("sleepers", 9);
  constexpr int kLimitUs = 2000;
  constexpr size_t kEnough = 15;
  constexpr size_t kMost = 60;
  std::vector<int> stoppedUs;  // ascending
  const auto best = [&] { return stoppedUs.empty() ? kLimitUs : stoppedUs.front(); };
  Dump dump;
  // The best of them: what a busy machine adds is its own. There a thread may also not stop in time.
  for (size_t turn = 0; turn < kMost && (turn < kEnough || best() >= kLimitUs); turn++) {
    dump = dumpOf(victim.pid(), victim.thread());
    const Json& capture = dump.report["metadata"]["capture"];
    if (capture["stacks"] == 10) stoppedUs.push_back(static_cast<int>(capture["stoppedUs"].get<double>()));
    std::sort(stoppedUs.begin(), stoppedUs.end());
  }
  ASSERT_FALSE(stoppedUs.empty());
  printf("10 threads stopped for %d us in all (median of %zu dumps; %d to %d)\n",
         stoppedUs[stoppedUs.size() / 2], stoppedUs.size(), stoppedUs.front(), stoppedUs.back());
  if (best() >= kLimitUs && isShortOfCpu()) GTEST_SKIP() << "others had the CPUs";
  EXPECT_LT(best(), kLimitUs);
}

TEST(Dump, SaysWhatIsNotPermitted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to have privileges to drop";
  HangTarget victim("kinds");
  // Loads the library, too: below a folder of root's the other user could not.
  ASSERT_TRUE(dumpOf(victim.pid(), victim.thread()).whole);
  constexpr int kNotDropped = 77;
  constexpr int kNotReached = 78;
  const auto program = std::filesystem::path(KELVANE_LIBRARY).parent_path() / "quorveld/kelvane-capture";
  pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(kNotDropped);
    if (access(program.c_str(), X_OK) != 0) _exit(kNotReached);
    Dump dump = dumpOf(victim.pid(), victim.thread());
    bool said = dump.whyLeftOut("kernel stacks").find("ermi") != std::string::npos &&
                dump.whyLeftOut("user stacks").find("ermi") != std::string::npos;
    _exit(dump.whole && said && dump.report["threads"].size() == 5 ? 0 : 2);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotDropped) GTEST_SKIP() << "may not become another user";
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotReached)
    GTEST_SKIP() << program << " is not for other users";
  EXPECT_EQ(status, 0);
}

TEST(Dump, ABrokenHeaderIsSaidAndTheReportIsStillWhole) {
  std::string deep = "{\"DisplayData\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}";
  std::string longer = "{\"Reason\":\"" + std::string(kelvane::kMaxHeaderBytes, 'x') + "\"}";
  for (const char* header : {"no JSON", "[1]", "{\"PID\":", "\xff", deep.c_str(), longer.c_str(), ""}) {
    Dump dump = dumpWith(header);
    EXPECT_TRUE(dump.whole);
    EXPECT_NE(dump.whyLeftOut("header"), "") << std::string(header).substr(0, 40);
  }
  EXPECT_NE(dumpWith(nullptr).whyLeftOut("header"), "");
  for (const char* pid : {"\"1\"", "-1", "1e300", "99999999999", "null", "true", "1.5"}) {
    Dump dump = dumpWith(
        (std::string("{\"PID\":") + pid + ",\"StartTime\":9,\"EndTime\":3,\"ThreadID\":{}}").c_str());
    EXPECT_TRUE(dump.whole);
    EXPECT_NE(dump.whyLeftOut("process"), "") << pid;
    EXPECT_NE(dump.whyLeftOut("hang interval"), "");
    EXPECT_NE(dump.whyLeftOut("header key Reason"), "");
  }
}

/// A report about an activation names no process; a process may also be the one that waits for the report, or
/// the kernel's.
TEST(Dump, ProcessesOfOtherKinds) {
  Dump none = dumpOf(0, 0);
  EXPECT_TRUE(none.whole);
  EXPECT_TRUE(none.report["threads"].empty());
  EXPECT_EQ(none.report["traceEvents"][1]["name"], "MainThread");
  expectOpensInViewers(none.report);
  Dump self = dumpOf(getpid(), getpid());
  EXPECT_TRUE(self.whole);
  EXPECT_NE(self.whyLeftOut("user stacks").empty(), self.stackOf(getpid()).empty());
  Dump kernel = dumpOf(2, 2);
  EXPECT_TRUE(kernel.whole);
  EXPECT_NE(kernel.whyLeftOut("user stacks") + kernel.whyLeftOut("process"), "");
}

/// A launch's process is told apart from its report, whose header names none; no stack of it is taken.
TEST(Dump, TellsTheProcessOfALaunchInTheNextReportAlone) {
  const uint64_t before = kelvane::monotonicNs() * 3 / 125;
  HangTarget victim("kinds");
  const Library library;
  const uint64_t now = kelvane::monotonicNs() * 3 / 125;
  const auto launchOf = [&](kelvane_launch launch, pid_t headers) {
    library.launch(&launch);
    return dumpBy(library, headerOf(headers, headers).dump().c_str());
  };
  // The header's time began a second and a half ago; the victim may be older.
  const Dump launched = launchOf({victim.pid(), now - 24'000'000}, 0);
  EXPECT_TRUE(launched.whole);
  expectOpensInViewers(launched.report);
  const Json& metadata = launched.report["metadata"];
  EXPECT_EQ(metadata["PID"], 0);
  EXPECT_EQ(metadata["launch"]["pid"], victim.pid());
  EXPECT_EQ(metadata["launch"]["name"], "kelvane_victim");
  EXPECT_NE(metadata["launch"]["phases"].dump().find("first connection"), std::string::npos);
  EXPECT_TRUE(launched.report["threads"].empty());
  EXPECT_EQ(launched.whyLeftOut("process"), "");
  EXPECT_NE(metadata["verdict"]["sentence"].get<std::string>().find("kelvane_victim"), std::string::npos);

  EXPECT_FALSE(dumpBy(library, headerOf(0, 0).dump().c_str()).report["metadata"].contains("launch"));
  EXPECT_FALSE(launchOf({victim.pid(), 0}, victim.pid()).report["metadata"].contains("launch"));
  // A process that is younger than the launch's end has taken its number over.
  Json over = headerOf(0, 0);
  over["StartTime"] = before - 48'000'000;
  over["EndTime"] = before - 24'000'000;
  const kelvane_launch taken{victim.pid(), 0};
  library.launch(&taken);
  const Dump another = dumpBy(library, over.dump().c_str());
  EXPECT_FALSE(another.report["metadata"]["launch"].contains("name"));
  EXPECT_NE(another.text.find("had ended"), std::string::npos);
}

TEST(Dump, LeavesTheCallerAsItWas) {
  HangTarget victim("kinds");
  const size_t descriptors = settledDescriptors(victim);
  std::vector<struct sigaction> before(SIGRTMAX + 1), after(SIGRTMAX + 1);
  sigset_t maskBefore, maskAfter;
  for (int i = 1; i <= SIGRTMAX; i++) sigaction(i, nullptr, &before[static_cast<size_t>(i)]);
  pthread_sigmask(SIG_BLOCK, nullptr, &maskBefore);
  for (int i = 0; i < 8; i++) ASSERT_TRUE(dumpOf(victim.pid(), victim.thread()).whole);
  for (int i = 1; i <= SIGRTMAX; i++) sigaction(i, nullptr, &after[static_cast<size_t>(i)]);
  pthread_sigmask(SIG_BLOCK, nullptr, &maskAfter);
  for (size_t i = 1; i < before.size(); i++) EXPECT_EQ(before[i].sa_handler, after[i].sa_handler) << i;
  for (int i = 1; i <= SIGRTMAX; i++) EXPECT_EQ(sigismember(&maskBefore, i), sigismember(&maskAfter, i)) << i;
  // Nothing of earlier reports takes what little there will be, either.
  EXPECT_TRUE(eventually([&] {
    dumpOf(victim.pid(), victim.thread());
    return openDescriptors() == descriptors;
  }));

  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlimit tight{static_cast<rlim_t>(descriptors + 1), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &tight);
  Dump starved = dumpOf(victim.pid(), victim.thread());
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(starved.whole);
  // Whoever is the first of a PID namespace has others' orphans for children.
  if (getpid() != 1) {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), 0) << "no child but the victim, and that runs";
  }
}

}  // namespace

}  // namespace kelvane_test
