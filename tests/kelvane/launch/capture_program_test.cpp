#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "kelvane/base/limits.h"
#include "kelvane/launch/arguments.h"
#include "tests/kelvane/hang_target.h"

// The library with programs of another kind in the place of kelvane-capture.

namespace kelvane_test {
namespace {

/// A copy of the library in a folder of its own, and beside it the program that is this shell script; an
/// empty one: none.
class OtherProgram {
 public:
  explicit OtherProgram(const std::string& script) {
    EXPECT_TRUE(mkdtemp(folder_.data()));
    const std::string library = folder_ + "/libkelvane.so";
    const std::string program = folder_ + "/quorveld/kelvane-capture";
    std::filesystem::copy_file(KELVANE_LIBRARY, library);
    if (!script.empty()) {
      std::filesystem::create_directory(folder_ + "/quorveld");
      std::ofstream(program) << "#!/bin/sh\n" << script << "\n";
      chmod(program.c_str(), 0700);
    }
    library_ = std::make_unique<Library>(library.c_str());
  }
  ~OtherProgram() { std::filesystem::remove_all(folder_); }

  Dump dump() const { return dumpBy(*library_, headerOf(1, 1).dump().c_str()); }

 private:
  std::string folder_ = testing::TempDir() + "kelvane-XXXXXX";
  std::unique_ptr<Library> library_;
};

TEST(CaptureProgram, WithoutItsReportThereIsOneOfTheHeaderThatSaysWhy) {
  using namespace std::chrono_literals;
  const std::pair<const char*, const char*> programs[] = {
      {"", "No such file"},
      {"exit 2", "of another version than the library"},
      {"exit 3", "out of memory"},
      {"echo '{\"cut\":'; kill -SEGV $$", "ended by a signal (Segmentation fault)"},
      {"exit 0", "it wrote nothing"},
      {"exec sleep 60", "it took longer than 5000 ms"},
  };
  for (const auto& [script, why] : programs) {
    const OtherProgram program(script);
    const Dump dump = program.dump();
    EXPECT_TRUE(dump.whole) << script;
    EXPECT_NE(dump.whyLeftOut("process").find(why), std::string::npos) << dump.report["metadata"]["leftOut"];
    EXPECT_EQ(dump.report["metadata"]["ServiceName"], "MainThread");
    EXPECT_EQ(dump.report["traceEvents"][1]["name"], "MainThread") << "the hang itself is still shown";
    EXPECT_LT(dump.took, kelvane::kReportBudget + 500ms) << script;
    expectOpensInViewers(dump.report);
  }
}

TEST(CaptureProgram, InheritsNothingOfItsCaller) {
  const OtherProgram program(
      "read -r header\n"
      "status() { sed -n \"s/^$1:[[:space:]]*//p\" /proc/$$/status; }\n"
      "echo \"{\\\"fds\\\":\\\"$(cd /proc/$$/fd && echo *)\\\",\\\"ignored\\\":\\\"$(status SigIgn)\\\","
      "\\\"blocked\\\":\\\"$(status SigBlk)\\\",\\\"folder\\\":\\\"$(pwd)\\\",\\\"home\\\":\\\"${HOME-none}\\\","
      "\\\"arguments\\\":\\\"$*\\\",\\\"header\\\":$header}\"");
  setenv("HOME", "/nowhere", 1);
  const int inheritable = fcntl(STDERR_FILENO, F_DUPFD, 40);  // beyond those that a shell opens for itself
  const auto before = signal(SIGUSR2, SIG_IGN);
  sigset_t usr1, old;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &usr1, &old);
  const Dump dump = program.dump();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  signal(SIGUSR2, before);
  close(inheritable);

  const Json& report = dump.report;
  EXPECT_EQ(report["fds"].get<std::string>().find("40"), std::string::npos) << report;
  EXPECT_EQ(report["ignored"], "0000000000000000");
  EXPECT_EQ(report["blocked"], "0000000000000000");
  EXPECT_EQ(report["folder"], "/");
  EXPECT_EQ(report["home"], "none");
  EXPECT_EQ(report["arguments"], "names=1");
  EXPECT_EQ(report["header"]["ServiceName"], "MainThread");
}

TEST(CaptureProgram, UnderstandsWhatTheLibraryAsks) {
  kelvane::DumpRequest asked;
  asked.symbolicate = false;
  asked.minTicks = 5;
  asked.maxTicks = UINT64_MAX;
  const kelvane::Order order = kelvane::readOrder("{\"PID\":7}", kelvane::argumentsOf(asked, "it = held up"))
                                   .value_or(kelvane::Order{});
  EXPECT_EQ(order.request.pid, 7);
  EXPECT_FALSE(order.request.symbolicate);
  EXPECT_EQ(order.request.minTicks, asked.minTicks);
  EXPECT_EQ(order.request.maxTicks, asked.maxTicks);
  EXPECT_EQ(order.notLooking, "it = held up");
  for (const char* wrong : {"", "names=", "min=", "max=-1", "min=9x", "max=99999999999999999999", "new=1"}) {
    EXPECT_FALSE(kelvane::readOrder("", {wrong})) << wrong;
  }
}

}  // namespace
}  // namespace kelvane_test
