#include "kelvane/recorder/recorder.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "kelvane/recorder/recorder_status.h"
#include "kelvane/recording/recorder_folder.h"
#include "kelvane/recording/recording.h"
#include "tests/kelvane/hang_target.h"
#include "tests/patience.h"

namespace kelvane {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong{20'000};

/// A recorder of its own below a scratch root; stopped and removed again.
class Recorder : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mkdtemp(root_.data()));
    setenv("QUORVELD_ROOT", root_.c_str(), 1);
  }
  void TearDown() override {
    EXPECT_EQ(stopRecorder().error, "");
    unsetenv("QUORVELD_ROOT");
    std::filesystem::remove_all(root_);
  }

  /// Why it doesn't run; empty if it does.
  std::string start(size_t bufferKb = kDefaultBufferKb) {
    startedNs_ = monotonicNs();
    const ControlResult result = startRecorder(bufferKb);
    runningSinceNs_ = monotonicNs();
    for (const Omission& omission : result.leftOut) lacking_ += omission.what;
    return result.error;
  }
  std::filesystem::path folder() const { return root_ + "/run/kelvane"; }
  void mark(const std::string& text) const { std::ofstream(folder() / "instance/trace_marker") << text; }

  Recording readAll() const { return readRecording(startedNs_, monotonicNs(), Deadline(kLong)); }
  static size_t count(const Recording& recording, const std::string& text) {
    return static_cast<size_t>(
        std::count_if(recording.events.begin(), recording.events.end(), [&](const auto& event) {
          return event.kind == RecordedKind::mark && recording.texts[event.value] == text;
        }));
  }
  static void expectSound(const Recording& recording) {
    uint64_t lastNs = recording.fromNs;
    for (const RecordedEvent& event : recording.events) {
      ASSERT_GE(event.atNs, lastNs);
      lastNs = event.atNs;
    }
    EXPECT_LE(lastNs, recording.toNs);
  }

  uint64_t startedNs_ = 0;  // before it was started, and after
  uint64_t runningSinceNs_ = 0;
  std::string lacking_;

 private:
  std::string root_ = testing::TempDir() + "kelvane-XXXXXX";
};

std::string whyNot(const Recording& recording) {
  return recording.omissions.empty() ? "" : recording.omissions[0].why;
}

TEST_F(Recorder, ShowsEachReaderTheSamePast) {
  EXPECT_EQ(whyNot(readAll()), "it is not running: kelvanectl start");
  constexpr size_t kRoomyKb = 4 * kDefaultBufferKb;  // for what else this machine does
  if (const std::string error = start(kRoomyKb); !error.empty()) GTEST_SKIP() << error;
  EXPECT_TRUE(startRecorder(kDefaultBufferKb).wasSo);

  kelvane_test::HangTarget victim("kinds");
  mark("before\n");
  victim.signal(SIGSTOP);
  ASSERT_TRUE(victim.reaches('T'));
  const uint64_t stoppedNs = monotonicNs();
  const Recording first = readAll();
  mark("between");
  const Recording second = readAll();

  for (const Recording* recording : {&first, &second}) {
    expectSound(*recording);
    EXPECT_EQ(count(*recording, "before"), 1u);
    EXPECT_LE(recording->coveredFromNs, runningSinceNs_);
    EXPECT_EQ(recording->lostEvents, 0u);
    const auto has = [&](RecordedKind kind, auto&& is) {
      return std::any_of(recording->events.begin(), recording->events.end(),
                         [&](const RecordedEvent& event) { return event.kind == kind && is(event); });
    };
    EXPECT_TRUE(has(RecordedKind::contextSwitch, [&](const RecordedEvent& event) {
      return event.tid == victim.thread() && event.state == 'T';
    }));
    EXPECT_TRUE(has(RecordedKind::wakeup,
                    [&](const RecordedEvent& event) { return event.other == victim.thread(); }));
    EXPECT_TRUE(has(RecordedKind::signal, [&](const RecordedEvent& event) {
      return event.tid == victim.pid() && event.value == SIGSTOP && event.other == gettid();
    }));
    EXPECT_EQ(recording->threadNames.at(victim.thread()), "reader");
  }
  EXPECT_EQ(count(second, "between"), 1u);

  const Recording later = readRecording(stoppedNs, monotonicNs(), Deadline(kLong));
  expectSound(later);
  if (later.lostEvents > 0 || !later.omissions.empty())
    GTEST_SKIP() << "others had more events recorded than are kept or read: " << later.lostEvents << " lost, "
                 << whyNot(later);
  EXPECT_EQ(later.coveredFromNs, stoppedNs);
  EXPECT_EQ(count(later, "before"), 0u);
  EXPECT_EQ(count(later, "between"), 1u);

  const RecorderStatus status = readRecorderStatus(Deadline(kLong));
  EXPECT_TRUE(status.running);
  EXPECT_GT(status.coveredNs, 0u);
  EXPECT_GT(status.eventsPerSecond, 0);
  EXPECT_GT(status.keptBytes, 0u);
  EXPECT_GE(status.bufferKb, kRoomyKb);
  EXPECT_EQ(stopRecorder().error, "");
  EXPECT_FALSE(readRecorderStatus(Deadline(kLong)).running);
}

TEST_F(Recorder, OwnsUpToWhatWasOverwritten) {
  constexpr size_t kSmallKb = 256;
  if (const std::string error = start(kSmallKb); !error.empty()) GTEST_SKIP() << error;
  cpu_set_t here;  // all marks go to one buffer
  CPU_ZERO(&here);
  CPU_SET(sched_getcpu(), &here);
  ASSERT_EQ(sched_setaffinity(0, sizeof here, &here), 0);
  mark("first");
  for (int i = 0; i < 20'000; ++i) mark("more");
  Recording recording;
  // A busy machine may overwrite all of so small a buffer again before it is read.
  EXPECT_TRUE(quorveld::tests::eventually([&] {
    mark("last");
    recording = readAll();
    return recording.coveredFromNs < recording.toNs && count(recording, "last") > 0;
  }));
  expectSound(recording);
  EXPECT_EQ(count(recording, "first"), 0u);
  EXPECT_GT(recording.lostEvents, 0u);
  EXPECT_GT(recording.coveredFromNs, startedNs_);
  // What is kept has a limit too.
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 2'000; ++i) mark("more");
    readAll();
  }
  EXPECT_LE(readRecorderStatus(Deadline(kLong)).keptBytes,
            (kSmallKb + 16) * 1024 * 3 * static_cast<size_t>(sysconf(_SC_NPROCESSORS_CONF)));
}

TEST_F(Recorder, SurvivesWhateverItsFolderHolds) {
  if (const std::string error = start(); !error.empty()) GTEST_SKIP() << error;
  mark("kept");
  EXPECT_EQ(count(readAll(), "kept"), 1u);
  unsigned seed = 1;
  for (int round = 0; round < 50; ++round) {
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
      if (!entry.path().filename().string().starts_with("cpu")) continue;
      const auto size = std::filesystem::file_size(entry.path());
      std::fstream file(entry.path(), std::ios::in | std::ios::out | std::ios::binary);
      for (int i = 0; i < 100 && size > 0; ++i) {
        file.seekp(static_cast<std::streamoff>(static_cast<size_t>(rand_r(&seed)) % size));
        file.put(static_cast<char>(rand_r(&seed)));
      }
      file.close();
      if (round % 10 == 9) std::filesystem::resize_file(entry.path(), size + 100);
    }
    // A busy machine may overwrite a mark before it is read.
    EXPECT_TRUE(quorveld::tests::eventually([&] {
      mark("new");
      const Recording recording = readAll();
      expectSound(recording);
      return count(recording, "new") > 0;
    }));
  }
  std::ofstream(folder() / "started") << "soon";
  EXPECT_FALSE(readAll().events.empty());
}

TEST_F(Recorder, ServesReportsAfterAnyNumberOfThem) {
  if (const std::string error = start(); !error.empty()) GTEST_SKIP() << error;
  readAll();
  // What many reports leave: a hole as long as all that they took, and pages behind it.
  constexpr uintmax_t kTaken = uintmax_t{8} << 30;
  for (const auto& entry : std::filesystem::directory_iterator(folder())) {
    if (entry.path().filename().string().starts_with("cpu"))
      std::filesystem::resize_file(entry.path(), kTaken);
  }
  const kelvane_test::HangTarget victim("kinds");
  const kelvane_test::Dump dump = kelvane_test::dumpOf(victim.pid(), victim.thread());
  EXPECT_EQ(dump.whyLeftOut("process"), "");
  EXPECT_EQ(dump.whyLeftOut("flight recorder"), "");
  kelvane_test::expectOpensInViewers(dump.report);
}

TEST_F(Recorder, TellsAnOrdinaryUserThatTracingIsNotForHim) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to have privileges to drop";
  if (const std::string error = start(); !error.empty()) GTEST_SKIP() << error;
  EXPECT_EQ(stopRecorder().error, "");
  std::filesystem::remove_all(folder());
  constexpr uid_t kNobody = 65534;
  constexpr int kNotDropped = 77;
  for (const auto& path : {folder().parent_path().parent_path(), folder().parent_path()}) {
    ASSERT_EQ(chown(path.c_str(), kNobody, kNobody), 0);
  }
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(kNotDropped);
    _exit(startRecorder(kDefaultBufferKb).error.ends_with(": Permission denied") ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotDropped) GTEST_SKIP() << "may not become another user";
  EXPECT_EQ(status, 0);
}

TEST_F(Recorder, SaysWhyThereIsNoPast) {
  if (const std::string error = start(); !error.empty()) GTEST_SKIP() << error;
  {
    std::string error;
    const auto reader = RecorderFolder::open(Deadline(0ms), error);
    ASSERT_TRUE(reader) << error;
    const Recording recording = readRecording(startedNs_, monotonicNs(), Deadline(50ms));
    EXPECT_EQ(whyNot(recording), "someone else has been reading it all the time");
    EXPECT_EQ(recording.coveredFromNs, recording.toNs);
  }
  EXPECT_EQ(whyNot(readRecording(startedNs_, monotonicNs(), Deadline(0ms))), "reading took too long");
  std::ofstream(folder() / "instance/tracing_on") << "0";
  EXPECT_EQ(whyNot(readAll()), "someone has switched it off");
  std::ofstream(folder() / "instance/tracing_on") << "1";

  // The folder is lost, and with it the way to the instance: starting takes the instance over.
  std::filesystem::remove_all(folder());
  EXPECT_EQ(whyNot(readAll()), "it is not running: kelvanectl start");
  EXPECT_EQ(start(), "");
  mark("again");
  EXPECT_EQ(count(readAll(), "again"), 1u);
}

}  // namespace
}  // namespace kelvane
