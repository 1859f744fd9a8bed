#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "tests/kelvane/verdict/made_up_machine.h"

namespace kelvane {
namespace {

enum Function : uint32_t { kMain, kOpen, kCrunch, kParse, kDecode, kSave, kMutexLock, kStdLock };

/// The hang of a MadeUpMachine without a recorder, of which the last five seconds were sampled.
class SampledMachine : public MadeUpMachine {
 public:
  SampledMachine() {
    withoutRecorder();
    process.modules = {{"/usr/bin/viewer", ""}, {"/lib/libc.so.6", ""}};
    for (const char* name : {"main", "open_document", "crunch", "parse", "decode", "save_index"})
      process.frames.push_back({0, 0, 0, name});
    process.frames.push_back({0, 1, 0, "pthread_mutex_lock"});
    process.frames.push_back({0, 0, 0, "void std::lock<std::mutex, std::ratio<1l, 1l> >(std::mutex&)"});
    mark();
  }

  /// On the CPU, in the innermost of `frames`, a sample every 20 ms.
  void computes(uint64_t ms, std::vector<uint32_t> frames) {
    for (uint64_t end = atMs_ + ms; atMs_ < end;) {
      advance(20, 20);
      sample(frames, {}, false);
    }
  }
  void waits(uint64_t ms, std::vector<uint32_t> frames, std::vector<std::string> kernelFrames) {
    switches_++;
    sample(std::move(frames), std::move(kernelFrames), true);
    process.samples.back().times.awayNs = ms * kMs;
    advance(ms, 0);
  }
  void isPreempted(uint64_t ms, std::vector<uint32_t> frames) {
    waits(ms, std::move(frames), {});
    process.samples.back().times.wasPreempted = true;
    preemptedMs_ += ms;
  }
  Verdict judged() {
    mark();
    return verdict();
  }
  /// As a launch; if nothing else is known of its process, that has ended.
  std::pair<Launch, Verdict> judgedAsLaunch(LaunchedLook look = {}) {
    mark();
    process.comm = "viewer";
    look.pid = kApp;
    return launched(look);
  }
  using MadeUpMachine::waits;

 private:
  void advance(uint64_t ms, uint64_t cpuMs) {
    atMs_ += ms;
    cpuMs_ += cpuMs;
  }
  void sample(std::vector<uint32_t> frames, std::vector<std::string> kernelFrames, bool leaves) {
    // No two at once.
    process.samples.push_back(
        {{atMs_ * kMs + (leaves ? 1 : 0), cpuMs_ * kMs, switches_, leaves, preemptedMs_ * kMs, 0, false},
         std::move(frames),
         std::move(kernelFrames)});
  }
  void mark() {
    process.clockMarks.push_back(
        {atMs_ * kMs, cpuMs_ * kMs, switches_, preemptedMs_ * kMs, preemptedMs_ * kMs});
  }

  uint64_t atMs_ = 6'000, cpuMs_ = 0, switches_ = 0, preemptedMs_ = 0;
};

const std::vector<uint32_t> kParsing = {kParse, kCrunch, kOpen, kMain};
const std::vector<uint32_t> kDecoding = {kDecode, kCrunch, kOpen, kMain};
const std::vector<uint32_t> kLocking = {kMutexLock, kStdLock, kSave, kOpen, kMain};
const std::vector<std::string> kFutex = {"futex_do_wait", "do_futex"};

TEST(SampledPhases, AHangThatComputesAndWaitsIsToldAsBothWithTheFunctionOfEach) {
  SampledMachine machine;
  machine.computes(1'800, kParsing);
  machine.computes(1'000, kDecoding);
  machine.waits(2'200, kLocking, kFutex);
  machine.look().waitChannel = "do_futex";
  machine.process.threads[0].stack = StackSample{11'001 * kMs, 0, kLocking, ""};
  machine.waits(kApp, WaitKind::lock, kWorker);
  machine.party(kWorker).syscall = SystemCall{SYS_clock_nanosleep, {}};
  const Verdict verdict = machine.judged();
  expectSays(
      verdict, Cause::ownCpu,
      "Going by samples of 5.0 of 10.0 s: viewer (thread 100) was busy itself: 56 % of 5.0 s on the CPU, in "
      "crunch; it also waited for 2.2 of 5.0 s in save_index because thread 'worker' (101) slept "
      "(clock_nanosleep): viewer waits for a lock that it holds.");
  EXPECT_NEAR(spentMs(verdict, ThreadState::sleeping), 2'200, 1);  // its samples are a nanosecond apart
  EXPECT_EQ(spentMs(verdict, ThreadState::unknown), 5'000u);
  EXPECT_EQ(verdict.coveredNs, 5'000 * kMs);

  // What it waits for at the look is another wait: whoever holds that one has nothing to do with the hang.
  machine.look().waitChannel = "do_poll";
  const Verdict other = machine.judged();
  expectSays(other, Cause::ownCpu, "it also slept for 2.2 of 5.0 s in save_index (futex_do_wait).");
  EXPECT_FALSE(other.chain);
}

TEST(SampledPhases, WhoWasGivenNoCpuDidNotWait) {
  SampledMachine machine;
  machine.look().state = 'R';
  machine.rivals = Rivals{};
  machine.rivals->busiest = kHog;
  machine.rivals->name = "hog";
  machine.rivals->count = 1;
  machine.rivals->ranMs = machine.rivals->watchedMs = 200;
  for (int i = 0; i < 10; i++) {
    machine.computes(40, kParsing);
    machine.isPreempted(460, i < 2 ? kDecoding : kParsing);
  }
  expectSays(
      machine.judged(), Cause::starved,
      "was ready to run for 92 % of 5.0 s without being given a CPU; for all of 200 ms right after the look its CPU ran "
      "'hog' (pid 200).");
}

TEST(SampledPhases, TheKernelsFunctionsTellWhatIsWaitedForOnceTheLookIsTooLate) {
  SampledMachine machine;
  machine.look().state = 'R';
  machine.waits(2'000, kParsing, {"folio_wait_bit_common", "filemap_fault"});
  machine.computes(20, kParsing);
  machine.waits(2'980, kParsing, {"folio_wait_bit_common", "filemap_fault"});
  expectSays(machine.judged(), Cause::disk,
             "waited for all of 5.0 s for a page of a file, from a disk unless");

  SampledMachine stopped;
  stopped.look().state = 'R';
  stopped.waits(4'000, kParsing, {"do_signal_stop", "get_signal"});
  stopped.computes(1'000, kDecoding);
  expectSays(stopped.judged(), Cause::stopped, "was stopped for 4.0 of 5.0 s");
}

TEST(SampledPhases, AWaitWithoutTheKernelsFunctionsIsUnknown) {
  SampledMachine machine;
  machine.look().state = 'R';
  machine.computes(2'000, kParsing);
  machine.waits(1'000, kLocking, {});
  const Verdict verdict = machine.judged();
  expectSays(
      verdict, Cause::ownCpu,
      "Going by samples of 2.0 of 10.0 s: viewer (thread 100) was busy itself: 100 % of 2.0 s on the CPU");
  EXPECT_EQ(spentMs(verdict, ThreadState::unknown), 8'000u);
  EXPECT_EQ(verdict.coveredNs, 3'000 * kMs);

  // Of more that isn't known than is, what is known says nothing.
  machine.waits(2'000, kLocking, {});
  expectSays(machine.judged(), Cause::unknown, "hung for a reason that can't be told");
}

TEST(SampledPhases, AShortRecordingMixesNothingIntoThem) {
  SampledMachine machine;
  machine.coveredUntilTheLookFrom(10'500);
  for (uint64_t ms = 10'500; ms < 11'000; ms += 20) {
    machine.switches(ms, kApp, 'S', kHog);
    machine.wakes(ms + 18, kHog, kApp);
    machine.switches(ms + 19, kHog, 'S', kApp);
  }
  machine.computes(100, kParsing);
  machine.waits(4'900, kLocking, kFutex);
  machine.look().waitChannel = "futex_do_wait";
  machine.look().syscall = SystemCall{SYS_futex, {}};
  machine.process.threads[0].stack = StackSample{11'001 * kMs, 0, kLocking, ""};
  expectSays(machine.judged(), Cause::sleeping,
             "and waited for another thread (futex), in save_index (viewer).");
}

TEST(SampledPhases, WhoHasNotRunWasInWhatTheLookFinds) {
  SampledMachine asleep;
  asleep.computes(0, kParsing);
  asleep.process.clockMarks.push_back({11'000 * kMs, 0, 0, 0, 0});
  asleep.look().syscall = SystemCall{SYS_poll, {}};
  expectSays(asleep.verdict(), Cause::sleeping, "slept for all of 5.0 s and waited for an event (poll)");
  asleep.look().state = 'R';
  expectSays(asleep.verdict(), Cause::starved,
             "was ready to run for 100 % of 5.0 s without being given a CPU");
  // A moment says no more than the look does.
  asleep.process.clockMarks.front().atNs = 10'500 * kMs;
  EXPECT_FALSE(asleep.verdict().fromSamples);
}

std::string sharesText(const std::vector<PathShare>& shares) {
  std::string text;
  for (const PathShare& share : shares)
    text += share.thread.name + " " + share.doing + " " + std::to_string(share.ns / kMs) + " in " +
            share.function + ", ";
  return text;
}

TEST(SampledPhases, ALaunchThatNothingElseTellsOfIsToldByItsSamples) {
  SampledMachine machine;
  machine.waits(400, {},
                {"flock_lock_inode_wait"});  // when sampling began; of the user's stack nothing is known
  machine.computes(2'600, kParsing);
  machine.waits(2'000, kLocking, kFutex);
  const auto [launch, verdict] = machine.judgedAsLaunch();
  expectSays(
      verdict, Cause::ownCpu,
      "Going by samples of 5.0 of 10.0 s: viewer (thread 100) was busy itself: 52 % of 5.0 s on the CPU, "
      "in parse; it also slept for 2.4 of 5.0 s mostly in save_index (futex_do_wait).");
  EXPECT_FALSE(launch.isRecorded);
  EXPECT_EQ(sharesText(launch.path), "viewer running 2600 in parse, viewer sleeping 2399 in save_index, ");
  ASSERT_EQ(launch.phases.size(), 1u);
  EXPECT_FALSE(launch.phases[0].mostly) << "neither is half of it";

  // Whom it waited for they don't tell.
  SampledMachine shell;
  shell.waits(5'000, {}, {"do_wait"});
  LaunchedLook look;
  look.comm = "viewer";
  look.ranNs = 20 * kMs;
  look.childrenRanNs = 4'000 * kMs;
  EXPECT_EQ(SampledMachine(shell).judgedAsLaunch(look).second.sentence,
            "Going by samples of 5.0 of 10.0 s: viewer (thread 100) slept for all of 5.0 s (do_wait).");
  look.childrenRanNs = 6'000 * kMs;
  expectSays(
      shell.judgedAsLaunch(look).second, Cause::sleeping,
      "(do_wait). Its other threads have had CPUs for 20 ms in its life, and its children that have ended "
      "for 6.0 s.");

  // What they leave open is most of it: it may have been anything.
  SampledMachine unknown;
  unknown.computes(1'000, kParsing);
  unknown.waits(4'000, kLocking, std::vector<std::string>());
  expectSays(unknown.judgedAsLaunch().second, Cause::unknown, "Nothing of the launch is recorded");
}

TEST(SampledPhases, ARecordedLaunchIsToldWithTheFunctionsOfItsSamples) {
  SampledMachine machine;
  machine.coveredUntilTheLookFrom(0);
  machine.names() = {{kApp, "viewer"}, {kOther, "launcher"}};
  machine.makes(1'100, kOther, kApp);
  machine.switches(1'100, kOther, 'S', kApp);
  machine.computes(5'000, kParsing);
  const auto [launch, verdict] = machine.judgedAsLaunch();
  expectSays(verdict, Cause::ownCpu, "was busy itself: 100 % of 9.9 s on the CPU, in parse.");
  EXPECT_TRUE(verdict.fromRecorder);
  EXPECT_EQ(sharesText(launch.path).substr(0, 29), "viewer running 9900 in parse,");
  EXPECT_EQ(launch.phases.back().mostly.value_or(PathShare{}).function, "parse");
}

}  // namespace
}  // namespace kelvane
