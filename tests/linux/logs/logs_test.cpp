#include "platform/linux/logs/logs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/base/unique_fd.h"
#include "platform/linux/logs/log_sink.h"
#include "tests/linux/scratch_root.h"

namespace quorveld::linux_platform {
namespace {

using platform::LogLevel;

/// Stands in for stderr while it lives: a pipe large enough for a test's lines, whose every write can be told
/// apart.
class CapturedStderr {
 public:
  CapturedStderr() : saved_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends;
    // Datagrams: one read is one write.
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    reader_.reset(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
  }
  ~CapturedStderr() { dup2(saved_.get(), STDERR_FILENO); }

  /// What each write since the last call wrote.
  std::vector<std::string> writes() const {
    std::vector<std::string> result;
    std::string buffer(1 << 18, '\0');
    for (;;) {
      const ssize_t length = recv(reader_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (length <= 0) return result;
      result.push_back(buffer.substr(0, static_cast<size_t>(length)));
    }
  }
  void closeReader() { reader_.reset(); }

 private:
  UniqueFd saved_;
  UniqueFd reader_;
};

TEST(Logs, LineIsOneWriteWithNothingInItThatForgesAnother) {
  CapturedStderr captured;
  unsetenv("QUORVELD_LOG");
  LinuxLogs logs;
  captured.writes();  // that there is no trace_marker, perhaps
  platform::LogHandle& app = logs.handle("com.corvix.quorvel", "app");
  EXPECT_EQ(&app, &logs.handle("com.corvix.quorvel", "app"));
  EXPECT_NE(&app, &logs.handle("com.corvix.quorvel", ""));
  app.write(LogLevel::standard, "a\n2026 default forged\r\x1b[2J\t\xc2\x9bz \xc3\xa9\n\n");
  logs.handle("com.corvix.quorvel", "").write(LogLevel::info, std::string(5000, 'x'));
  logs.system("");
  app.write(LogLevel::debug, "not shown");
  app.signpostIntervalBegin(42, "appLaunch");

  const std::vector<std::string> lines = captured.writes();
  ASSERT_EQ(lines.size(), 4u);
  const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
  const auto matches = [&](size_t i, const std::string& rest) {
    return std::regex_match(lines[i], std::regex(time + rest + "\n")) || (ADD_FAILURE() << lines[i], false);
  };
  matches(0, R"(default com\.corvix\.quorvel:app a\\n2026 default forged\\x0d\\x1b\[2J\\t\\x9bz é)");
  matches(1, R"(info com\.corvix\.quorvel x+\.\.\.)");
  EXPECT_EQ(lines[1].size(), kMaxLineBytes) << "what a pipe takes whole";
  matches(2, "default ");
  matches(3, R"(info com\.corvix\.quorvel:app signpost begin 42 appLaunch)");
}

TEST(Logs, EnvironmentChoosesWhatIsShown) {
  struct Case {
    const char* value;
    size_t lines;
    bool info, debug;
  };
  for (const Case& each : {Case{"default", 1, false, false}, Case{"info", 2, true, false},
                           Case{"debug", 3, true, true}, Case{"loud", 3, true, false}}) {
    CapturedStderr captured;
    setenv("QUORVELD_LOG", each.value, 1);
    LinuxLogs logs;
    platform::LogHandle& log = logs.handle("s", "c");
    EXPECT_EQ(log.enabled(LogLevel::info), each.info) << each.value;
    EXPECT_EQ(log.enabled(LogLevel::debug), each.debug) << each.value;
    for (const LogLevel level : {LogLevel::standard, LogLevel::info, LogLevel::debug})
      log.write(level, "line");
    std::vector<std::string> lines = captured.writes();
    std::erase_if(lines,
                  [](const std::string& line) { return line.find("trace_marker") != std::string::npos; });
    EXPECT_EQ(lines.size(), each.lines) << each.value;
  }
  unsetenv("QUORVELD_LOG");
}

TEST(Logs, SignpostsMarkTheFlightRecordersTraceWhileItRuns) {
  const ScratchRoot root;
  const CapturedStderr captured;
  LinuxLogs logs;
  platform::LogHandle& launches = logs.handle("com.corvix.quorvel", "a|b");
  const std::string marker = "run/kelvane/instance/trace_marker";
  root.write(marker, "");
  EXPECT_TRUE(launches.signpostsEnabled());
  launches.signpostIntervalBegin(42, "appLaunch");
  EXPECT_EQ(root.read(marker), "S|" + std::to_string(getpid()) + "|a_b|42");
  std::filesystem::remove(root / marker);
  launches.signpostIntervalEnd(42, "appLaunch");  // the recorder has stopped: to everybody's trace, if at all
  EXPECT_FALSE(root.exists(marker));
}

TEST(Logs, FloodIsCutAndOwnedUpToAndSparesTheOtherLevels) {
  LineBudget budget;
  const auto passes = [&](uint32_t sender, int count) {
    int passed = 0;
    for (int i = 0; i < count; ++i) passed += budget.take(7, sender).pass ? 1 : 0;
    return passed;
  };
  // Three quarters are the users': each has as many as are left for the others, the daemon all that is left.
  EXPECT_EQ(passes(1001, 2000), 750);
  EXPECT_EQ(passes(1002, 2000), 375);
  EXPECT_EQ(passes(1001, 10), 0);
  EXPECT_EQ(passes(0, 2000), 2000 - 750 - 375);
  const LineBudget::Verdict next = budget.take(8, 1001);
  EXPECT_TRUE(next.pass);
  EXPECT_EQ(next.droppedBefore, 6010u - 2000u);
  EXPECT_EQ(budget.take(8, 1001).droppedBefore, 0u);

  const UniqueFd saved(dup(STDERR_FILENO));
  const UniqueFd file(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  dup2(file.get(), STDERR_FILENO);
  LinuxLogs logs;
  platform::LogHandle& log = logs.handle("s", "");
  const auto start = std::chrono::steady_clock::now();
  for (uint32_t i = 0; i < 10 * kMaxLogLinesPerSecond; ++i) log.write(LogLevel::info, "flood");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  log.write(LogLevel::standard, "important");
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  log.write(LogLevel::info, "calm");
  dup2(saved.get(), STDERR_FILENO);
  std::string text(1 << 21, '\0');
  text.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(file.get(), text.data(), text.size(), 0))));
  // A second that is begun or ended counts whole; a few lines are others.
  EXPECT_LT(std::count(text.begin(), text.end(), '\n'), (took.count() + 3) * kMaxLogLinesPerSecond);
  EXPECT_NE(text.find("default s important\n"), std::string::npos);
  EXPECT_NE(text.find("lines of level info dropped: too many in a second\n"), std::string::npos);
}

TEST(Logs, DeadReaderAndFullDiskAreSurvived) {
  signal(SIGPIPE, SIG_IGN);
  CapturedStderr captured;
  LinuxLogs logs;
  captured.closeReader();
  logs.system("nobody reads this");
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  dup2(full.get(), STDERR_FILENO);
  logs.system("nor this");
}

/// Fills what `write` goes to until it takes no more, lets `drain` read, and looks for the line that owns up.
void expectLossIsOwnedUpTo(LogSink& sink, const std::function<std::string()>& drain) {
  const std::string text(1000, 'x');
  const auto start = std::chrono::steady_clock::now();
  // Within the budget, or that would be what is owned up to.
  for (uint32_t i = 0; i < kMaxLogLinesPerSecond; ++i) sink.write({LogLevel::info, "s", "", text});
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took.count(), 60) << "it waited for its reader";
  const std::string first = drain();
  EXPECT_NE(first.find(text), std::string::npos);
  for (int i = 0; i < 2;
       ++i) {  // the second one if the first is of the second in which a loss was tried to be said
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    sink.write({LogLevel::info, "s", "", "calm"});
  }
  const std::string then = drain();
  EXPECT_TRUE(std::regex_search(then, std::regex("[0-9]+ lines lost: the log did not take them\n"))) << then;
  EXPECT_NE(then.find("calm\n"), std::string::npos);
}

TEST(Logs, PipeThatNobodyReadsKeepsNobodyWaiting) {
  const UniqueFd saved(dup(STDERR_FILENO));
  std::array<int, 2> ends;
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const UniqueFd reader(ends[0]);
  dup2(ends[1], STDERR_FILENO);
  ::close(ends[1]);
  LogSink sink;
  expectLossIsOwnedUpTo(sink, [&] {
    std::string text(1 << 20, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(0, read(reader.get(), text.data(), text.size()))));
    return text;
  });
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0) << "others write there too, and may wait";
  dup2(saved.get(), STDERR_FILENO);
}

TEST(Logs, JournalThatNobodyReadsKeepsNobodyWaiting) {
  const ScratchRoot root;
  const std::string path = root / "journal";
  const UniqueFd journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(journal.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const CapturedStderr captured;
  struct stat status {};
  ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
  setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(), 1);
  LogSink sink(path);
  unsetenv("JOURNAL_STREAM");
  const auto drain = [&] {
    std::string all;
    std::string datagram(1 << 16, '\0');
    for (ssize_t length = 0; (length = recv(journal.get(), datagram.data(), datagram.size(), 0)) > 0;) {
      all.append(datagram, 0, static_cast<size_t>(length));
    }
    return all;
  };
  sink.write({LogLevel::info, "s", "c", "one\nPRIORITY=0", {}, 7, "end"});
  EXPECT_EQ(drain(),
            "SYSLOG_IDENTIFIER=quorveld\nPRIORITY=6\nQV_LEVEL=info\nSUBSYSTEM=s\nCATEGORY=c\nSIGNPOST_ID=7\n"
            "SIGNPOST_TYPE=end\nMESSAGE=one\\nPRIORITY=0\n");
  sink.write({LogLevel::info,
              "s",
              "",
              "lost",
              {platform::LogEventKind::reportLost, 42, "/a\nb", 1e300, "lock", "", "0f"}});
  EXPECT_EQ(
      drain(),
      "SYSLOG_IDENTIFIER=quorveld\nPRIORITY=4\nQV_LEVEL=info\nSUBSYSTEM=s\n"
      "MESSAGE_ID=f87ebc867a9f4568b156e10c37dae7c2\nOBJECT_PID=42\nQV_REPORT=/a\\nb\nQV_CAUSE=lock\nQV_SIGNATURE=0f\n"
      "QV_DURATION_MS=1000000000000000\nMESSAGE=lost\n");
  expectLossIsOwnedUpTo(sink, drain);
  EXPECT_TRUE(captured.writes().empty());
}

TEST(Logs, JournalIsUsedOnlyWhenStderrIsItsStream) {
  CapturedStderr captured;
  struct stat status {};
  ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
  const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  setenv("JOURNAL_STREAM", "1:1", 1);  // inherited, and stderr redirected since
  LinuxLogs toStderr;
  captured.writes();  // that there is no trace_marker, perhaps
  toStderr.system("to stderr");
  EXPECT_EQ(captured.writes().size(), 1u);
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  LinuxLogs().system("to the journal");
  EXPECT_EQ(captured.writes().size(), 0u);
  unsetenv("JOURNAL_STREAM");
}

}  // namespace
}  // namespace quorveld::linux_platform
