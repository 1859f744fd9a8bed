#include <gtest/gtest.h>
#include <pty.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

/// Runs the program itself on a scratch root.
class Command : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(mkdtemp(root_.data())); }
  void TearDown() override { std::filesystem::remove_all(root_); }

  /// The exit status; what it said is in `output_`, stderr too.
  int run(const std::string& arguments) {
    const std::string line = "'" QUORVELCTL "' --root " + root_ + " " + arguments + " 2>&1";
    FILE* pipe = popen(line.c_str(), "r");
    output_.clear();
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) output_ += static_cast<char>(c);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string contents(const std::string& path) const {
    std::ostringstream text;
    text << std::ifstream(root_ + path).rdbuf();
    return text.str();
  }

  void write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(root_ + path).parent_path());
    std::ofstream(root_ + path) << text;
  }

  /// A report of a hang of `app` that its thread `culprit` kept waiting.
  void writeReport(const std::string& name, const std::string& cause, int durationMs, const std::string& app,
                   const std::string& culprit, const std::string& signature) const {
    write("/var/root/Library/Caches/quorveld/spool/" + name + ".kelvane",
          R"({"metadata":{"ServiceName":"MainThread","PID":4,"ProcessPath":"/bin/)" + app +
              R"(","StartTime":24000,"EndTime":)" + std::to_string(24'000 * (1 + durationMs)) +
              R"(,"signature":")" + signature + R"(","verdict":{"cause":")" + cause +
              R"(","sentence":"It waited for )" + culprit + R"(.","chain":[{"tid":5,"name":")" + culprit +
              R"(","pid":4,"process":")" + app + R"(","culprit":"slept"}]}},"traceEvents":[)" +
              std::string(100'000, ' ') + "]}");
  }

  std::string root_ = "/tmp/quorvelctl.XXXXXX";
  std::string output_;
};

constexpr const char* kTelvo = "/var/mobile/Library/Preferences/com.corvix.telvo.plist";
constexpr const char* kPosted = "/run/quorveld/notify/com.corvix.quorvel.pref_changed";

TEST_F(Command, PreferencesAreWrittenAndTheDaemonIsTold) {
  EXPECT_EQ(run("prefs set --no-notify QuorvelEnabled true"), 0) << output_;
  EXPECT_FALSE(std::filesystem::exists(root_ + kPosted));
  EXPECT_EQ(run("prefs set QuorvelDailyLogLimit 7"), 0) << output_;
  EXPECT_EQ(contents(kPosted), "0\n");
  EXPECT_NE(contents(kTelvo).find("<integer>7</integer>"), std::string::npos);
  struct stat status {};
  EXPECT_EQ(stat((root_ + kTelvo).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  EXPECT_EQ(run("prefs get QuorvelEnabled"), 0);
  EXPECT_EQ(output_, "true\n");

  write("/Library/Managed Preferences/mobile/.GlobalPreferences.plist",
        "<plist><dict><key>QVProfile.QuorvelEnabled</key><false/></dict></plist>");
  EXPECT_EQ(run("prefs get QuorvelEnabled"), 0);
  EXPECT_EQ(output_, "false (managed)\n");
  EXPECT_EQ(run("prefs unset QuorvelEnabled"), 0);
  EXPECT_EQ(contents(kTelvo).find("QuorvelEnabled"), std::string::npos);
  EXPECT_EQ(run("prefs get QuorvelEnableHUD"), 1);
}

TEST_F(Command, ABrokenFileIsLeftAlone) {
  write(kTelvo, "<plist>\n<dict>\n<key>");
  EXPECT_EQ(run("prefs set QuorvelEnabled true"), 1);
  EXPECT_NE(output_.find("line "), std::string::npos) << output_;
  EXPECT_EQ(contents(kTelvo), "<plist>\n<dict>\n<key>");
}

TEST_F(Command, WrongUsageIsTwoAndChangesNothing) {
  for (const char* arguments : {"",
                                "prefs",
                                "prefs set QuorvelEnabled",
                                "prefs set QuorvelEnabled perhaps",
                                "prefs set Quorvel 1",
                                "notify ../x",
                                "notify .x",
                                "notify x 1.5",
                                "notify x -1",
                                "notify x 18446744073709551616",
                                "nonsense",
                                "reports --none",
                                "reports list one",
                                "reports list --sort age",
                                "reports list --cause dsik",
                                "reports top --since soon",
                                "reports top --top 0",
                                "launch x",
                                "launch -- true",
                                "activations --last -1"}) {
    EXPECT_EQ(run(arguments), 2) << arguments;
    EXPECT_TRUE(output_.starts_with("quorvelctl: ")) << output_;
    EXPECT_EQ(std::count(output_.begin(), output_.end(), '\n'), 1) << output_;
  }
  EXPECT_EQ(run("prefs st"), 2);
  EXPECT_EQ(
      output_,
      "quorvelctl: there is no command \"st\"; there are list, get, set, unset; see quorvelctl prefs --help\n");
  for (const auto& [arguments, said] :
       {std::pair{"launch a true", "the command to launch stands behind \"--\""},
        {"launch -b a true", "there is no option \"-b\""},
        {"reports --none", "there is no option \"--none\""},
        {"reports list one", "\"one\" is one argument too many; see quorvelctl reports list --help"}}) {
    EXPECT_EQ(run(arguments), 2);
    EXPECT_NE(output_.find(said), std::string::npos) << output_;
  }

  EXPECT_TRUE(std::filesystem::is_empty(root_));
  for (const char* arguments :
       {"--help", "prefs --help", "prefs set --help", "notify --help", "reports show --help"}) {
    EXPECT_EQ(run(arguments), 0) << arguments;
  }
}

TEST_F(Command, WhereNothingIsYetThereIsASentenceAndNoFailure) {
  for (const char* arguments : {"reports list", "reports show", "metrics", "activations", "memory list",
                                "memory show", "memory growth"}) {
    EXPECT_EQ(run(arguments), 0) << arguments;
    EXPECT_NE(output_.find("yet"), std::string::npos) << output_;
  }
  EXPECT_EQ(run("reports list --json"), 0);
  EXPECT_EQ(output_, "[]\n");
  const auto toldOfActivations = [this](const char* text) {
    EXPECT_EQ(run("activations"), 0);
    EXPECT_NE(output_.find(text), std::string::npos) << output_;
  };
  toldOfActivations("none is recorded now: QuorvelEnableAppActivationLogging is not set\n");
  EXPECT_EQ(run("prefs set QuorvelEnableAppActivationLogging true"), 0);
  toldOfActivations("no activation recorded yet\n");
  EXPECT_EQ(output_.find("now"), std::string::npos);
  EXPECT_EQ(run("prefs set QuorvelSlowActKelvanesEnabled true"), 0);
  toldOfActivations("QuorvelSlowActKelvanesEnabled");
  for (const char* what : {"reports", "memory"}) {
    EXPECT_EQ(run(std::string(what) + " show --html " + root_ + "/page.html"), 1)
        << "there is no page to show for it";
  }
}

TEST_F(Command, MemoryReportsAreListedAndDrawn) {
  std::ostringstream report;
  report << std::ifstream(GOLDEN_DIR "/memory_snapshot.ips").rdbuf();
  const std::string folder = "/Library/Logs/Faultkeep/";
  write(folder + "memory-snapshot-2026-01-15-100000.ips", report.str());
  write(folder + "memory-snapshot-2026-01-15-110000.ips", report.str());
  write(folder + "memory-snapshot-2026-01-01-100000.ips", "broken, and too old for the page");
  EXPECT_EQ(run("memory show --html " + root_ + "/page.html --since 7d"), 0) << output_;
  EXPECT_NE(contents("/page.html").find("2 reports from 2026-01-15"), std::string::npos);
  EXPECT_EQ(run("memory show --html " + root_ + "/page.html memory-snapshot-2026-01-15-100000.ips"), 0);
  EXPECT_EQ(contents("/page.html").find("2 reports"), std::string::npos);
  for (const char* wrong :
       {"--since 7d", "--since week --html page.html", "--since 7d --html page.html a.ips"}) {
    EXPECT_EQ(run(std::string("memory show ") + wrong), 2) << output_;
  }
  EXPECT_EQ(run("memory list"), 1) << "one can't be read";
  EXPECT_NE(output_.find("100000.ips is no memory report: "), std::string::npos) << output_;
  EXPECT_NE(output_.find("8.00 GB say \"hi\"?  memory-snapshot-2026-01-15-110000.ips\n"), std::string::npos)
      << output_;
}

TEST_F(Command, OutputThatIsCutOffIsAFailure) {
  write(
      "/var/root/Library/Caches/quorveld/spool/a.kelvane",
      R"({"metadata":{"ProcessPath":"/bin/viewer","Reason":")" + std::string(size_t{1} << 16, 'x') + "\"}}");
  for (const char* arguments : {"--help", "--version", "prefs list", "reports list", "reports show --json",
                                "activations", "activations --json", "metrics"}) {
    const std::string line = "'" QUORVELCTL "' --root " + root_ + " " + arguments + " 2>&1 >/dev/full";
    FILE* pipe = popen(line.c_str(), "r");
    std::array<char, 256> said{};
    EXPECT_TRUE(fgets(said.data(), said.size(), pipe)) << arguments;
    EXPECT_STREQ(said.data(), "quorvelctl: the output could not be written: No space left on device\n");
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 1) << arguments;
  }
}

TEST_F(Command, OnlyWhoNamesFunctionsLoadsWhatNamesThem) {
  writeReport("a", "lock", 2000, "viewer", "worker", "one");
  write("/broken/libdw.so.1", "no library");
  setenv("LD_LIBRARY_PATH", (root_ + "/broken").c_str(), 1);
  EXPECT_EQ(run("reports list"), 0) << output_;
  EXPECT_EQ(run("reports show --no-symbols"), 0);
  EXPECT_EQ(output_.find("libdw"), std::string::npos) << output_;
  EXPECT_EQ(run("reports show"), 0);
  EXPECT_NE(output_.find("quorvelctl: no function is named: "), std::string::npos) << output_;
  EXPECT_NE(output_.find("worker"), std::string::npos) << output_;
  EXPECT_EQ(run("reports symbolicate a.kelvane"), 1);
  EXPECT_NE(output_.find("libdw.so.1"), std::string::npos) << output_;
  unsetenv("LD_LIBRARY_PATH");
}

TEST_F(Command, ReportsAreRemovedOnlyOnceTheirLinesAreOnTheDisk) {
  const std::string spool = "/var/root/Library/Caches/quorveld/spool/";
  write(spool + "a.kelvane", R"({"metadata":{"ServiceName":"MainThread","ProcessPath":"/bin/viewer"}})");
  write(spool + "b.kelvane", "{");
  const std::string out = root_ + "/lines";
  EXPECT_EQ(run("reports export --delete-after"), 2) << "what goes into a pipe may be lost";
  EXPECT_EQ(run("reports export --since yesterday"), 2);
  for (const char* bad : {"/dev/full", "/nowhere/at/all"}) {
    EXPECT_EQ(run(std::string("reports export --delete-after -o ") + bad), 1);
    EXPECT_TRUE(std::filesystem::exists(root_ + spool + "a.kelvane"));
  }
  EXPECT_EQ(run("reports export --since 1d --ndjson --device d7 -o " + out), 0) << output_;
  std::ofstream(out, std::ios::app) << R"({"device":"of one who was killed)";
  EXPECT_EQ(run("reports export --delete-after --device d7 -o " + out), 0) << output_;
  const std::string lines = contents("/lines");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2) << "appended";
  EXPECT_EQ(lines.find("killed"), std::string::npos) << lines;
  EXPECT_NE(lines.find(R"("device":"d7")"), std::string::npos) << lines;
  EXPECT_FALSE(std::filesystem::exists(root_ + spool + "a.kelvane"));
  EXPECT_TRUE(std::filesystem::exists(root_ + spool + "b.kelvane")) << "nobody has a line of it";
}

TEST_F(Command, TablesFitANarrowTerminalAndKeepARowALineElsewhere) {
  const auto longest = [this] {
    std::istringstream lines(output_);
    size_t most = 0;
    for (std::string line; std::getline(lines, line);) {
      while (!line.empty() && line.back() == '\r') line.pop_back();
      most = std::max(most, line.size());
    }
    return most;
  };
  writeReport("a", "lock", 5800, "viewer", "logger", "00000000000000aa");
  for (const auto& [command, shown] :
       {std::pair{"prefs list", "hang tracking"}, std::pair{"reports list", "viewer/logger"},
        std::pair{"reports top", "It waited for logger."}}) {
    EXPECT_EQ(run(command), 0);
    EXPECT_GT(longest(), 90u);
    const winsize narrow{.ws_row = 24, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &narrow);
    if (child == 0) {
      const std::string line = std::string("exec '" QUORVELCTL "' --root ") + root_ + " " + command;
      execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      _exit(127);
    }
    ASSERT_GT(child, 0);
    output_.clear();
    std::array<char, 4096> piece;
    for (ssize_t length = 0; (length = read(terminal, piece.data(), piece.size())) > 0;)
      output_.append(piece.data(), static_cast<size_t>(length));
    close(terminal);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_NE(output_.find(shown), std::string::npos) << output_;
    EXPECT_LE(longest(), 60u) << output_;
  }
}

TEST_F(Command, ANotificationReplacesItsFileAndIsSeenOnce) {
  std::filesystem::create_directories(root_ + "/run/quorveld/notify");
  const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  inotify_add_watch(watch, (root_ + "/run/quorveld/notify").c_str(), IN_MOVED_TO | IN_CLOSE_WRITE);
  EXPECT_EQ(run("notify com.corvix.drovik.hid.displayStatus 18446744073709551615"), 0) << output_;
  EXPECT_EQ(contents("/run/quorveld/notify/com.corvix.drovik.hid.displayStatus"), "18446744073709551615\n");
  int seen = 0;
  alignas(inotify_event) std::array<char, 4096> events;
  const ssize_t length = read(watch, events.data(), events.size());
  for (ssize_t at = 0; at < length;) {
    const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
    if (std::string_view(event->name) == "com.corvix.drovik.hid.displayStatus") ++seen;
    at += static_cast<ssize_t>(sizeof *event + event->len);
  }
  close(watch);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(run("notify com.corvix.drovik.hid.displayStatus"), 0);
  EXPECT_EQ(contents("/run/quorveld/notify/com.corvix.drovik.hid.displayStatus"), "0\n");
}

TEST_F(Command, TheSpoolIsListedWithItsBrokenReports) {
  const std::string spool = "/var/root/Library/Caches/quorveld/spool/";
  write(spool + "a.kelvane", R"({"metadata":{"ServiceName":"Fence-hang","PID":4,"ProcessPath":"/bin/viewer",
    "StartTime":0,"EndTime":24000}})");
  write(spool + "b.kelvane", "{");
  write(spool + "other", "");
  EXPECT_EQ(run("reports list"), 0) << output_;
  EXPECT_NE(output_.find("viewer  1 ms      -      -        fence hang  Fence-hang"), std::string::npos)
      << output_;
  EXPECT_NE(output_.find("unreadable"), std::string::npos);
  EXPECT_EQ(output_.find("other"), std::string::npos);
  EXPECT_EQ(run("reports show a.kelvane"), 0) << output_;
  EXPECT_EQ(run("reports show b.kelvane"), 1);
  write("/page.html", "");
  std::filesystem::create_symlink("page.html", root_ + "/link");
  EXPECT_EQ(run("reports show a.kelvane --html " + root_ + "/link"), 0) << output_;
  EXPECT_TRUE(std::filesystem::is_symlink(root_ + "/link"));
  EXPECT_NE(contents("/page.html").find("viewer hung for 1 ms"), std::string::npos);
  EXPECT_EQ(run("reports symbolicate a.kelvane -o " + root_), 1) << "a folder";
  EXPECT_EQ(run("reports show c.kelvane"), 1);
}

TEST_F(Command, ReportsAreSortedFilteredAndSummedUp) {
  writeReport("a", "lock", 1000, "viewer", "logger", "00000000000000aa");
  writeReport("b", "disk", 9000, "editor", "saver", "00000000000000bb");
  writeReport("c", "lock", 2000, "editor", "logger", "00000000000000aa");
  writeReport("d", "lock", 8000, "viewer", "\\u001b[2J", "00000000000000aa");
  writeReport("e", "lock", 8000, "viewer", "old", "");
  write("/var/root/Library/Caches/quorveld/spool/f.kelvane", "{");
  const auto files = [this] {
    std::string names;
    for (size_t at = output_.find(".kelvane"); at != std::string::npos; at = output_.find(".kelvane", at + 1))
      names += output_[at - 1];
    return names;
  };
  for (const auto& [arguments, expected] :
       {std::pair{"list --sort duration", "bdecaf"}, std::pair{"list --sort app --since 1d", "bcadef"},
        std::pair{"list --cause lock --sort culprit", "cdae"},
        std::pair{"list --cause lock --app editor", "c"}, std::pair{"list --cause frozen", ""},
        std::pair{"list --json --sort culprit --app viewer", "dae"}, std::pair{"top", "db"},
        std::pair{"top --top 1", "d"}, std::pair{"top --app editor --cause lock", "c"},
        std::pair{"top --json --top 1", "db"}}) {
    EXPECT_EQ(run(std::string("reports ") + arguments), 0) << output_;
    EXPECT_EQ(files(), expected) << arguments << "\n" << output_;
    EXPECT_EQ(output_.find('\x1b'), std::string::npos);
  }
  EXPECT_EQ(run("reports top"), 0);
  EXPECT_NE(output_.find("11.00 s    3        8.00 s   lock   editor, viewer  viewer/?[2J"),
            std::string::npos)
      << output_;
  EXPECT_NE(output_.find("2 without a signature"), std::string::npos) << output_;
  EXPECT_EQ(run("reports list --app vieewr"), 1);
  EXPECT_EQ(output_, "quorvelctl: no report is of \"vieewr\"; there are reports of editor, viewer\n");
  EXPECT_EQ(run("reports list --cause dsik"), 2);
  EXPECT_NE(output_.find("own-cpu"), std::string::npos) << output_;
}

}  // namespace
