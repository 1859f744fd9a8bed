#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "tests/kelvane/hang_target.h"

namespace kelvane_test {
namespace {

/// Runs `work` in a child process and returns its exit status; -1 if a signal ended it.
int inChild(const std::function<int()>& work) {
  pid_t child = fork();
  if (child == 0) _exit(work());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ScratchFile {
 public:
  ScratchFile() : fd_(mkostemp(path_, O_CLOEXEC)) {}
  ~ScratchFile() {
    close(fd_);
    unlink(path_);
  }
  int fd() const { return fd_; }
  size_t size() const { return std::filesystem::file_size(path_); }

 private:
  char path_[32] = "/tmp/kelvane-test-XXXXXX";
  int fd_;
};

bool dumpInto(int fd) {
  Library library;
  std::string header = headerOf(0, 0).dump();
  kelvane_option option{KELVANE_KEY_REASON_STRING, KELVANE_STRING, {}};
  option.value.string = header.c_str();
  kelvane_options options{1, &option};
  return library.dump(fd, &options);
}

TEST(ReportFile, ALongerOldReportLeavesNothingBehindAndTheOffsetIsNoMatter) {
  ScratchFile file;
  std::string old(1 << 20, '}');
  ASSERT_EQ(write(file.fd(), old.data(), old.size()), static_cast<ssize_t>(old.size()));
  ASSERT_TRUE(dumpInto(file.fd()));
  std::string text(file.size(), '\0');
  ASSERT_LT(text.size(), old.size());
  ASSERT_EQ(pread(file.fd(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  EXPECT_TRUE(nlohmann::json::accept(text));
  EXPECT_EQ(text.back(), '\n');
}

/// The signal of the file size limit neither ends the process, nor stays pending, nor changes its mask.
TEST(ReportFile, AFileSizeLimitFailsTheReportAndNothingElse) {
  ScratchFile file;
  for (bool blockedBefore : {false, true}) {
    EXPECT_EQ(inChild([&] {
                rlimit limit{100, 100};
                setrlimit(RLIMIT_FSIZE, &limit);
                sigset_t before, after, pending;
                sigemptyset(&before);
                sigaddset(&before, SIGXFSZ);
                sigprocmask(blockedBefore ? SIG_BLOCK : SIG_UNBLOCK, &before, nullptr);
                bool whole = dumpInto(file.fd());
                sigprocmask(SIG_BLOCK, nullptr, &after);
                sigpending(&pending);
                if (whole) return 1;
                if (sigismember(&pending, SIGXFSZ)) return 2;
                return sigismember(&after, SIGXFSZ) == int(blockedBefore) ? 0 : 3;
              }),
              0);
  }
}

TEST(ReportFile, AFullDiskFailsTheReport) {
  char dir[] = "/tmp/kelvane-disk-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  if (mount("tmpfs", dir, "tmpfs", 0, "size=4096") != 0) {
    rmdir(dir);
    GTEST_SKIP() << "no small disk can be mounted here (needs root)";
  }
  int fd = open((std::string(dir) + "/report").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  // Leave the disk fewer bytes than any report has.
  int filler = open((std::string(dir) + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  std::string bytes(4096, 'x');
  EXPECT_EQ(write(filler, bytes.data(), bytes.size()), 4096);
  EXPECT_FALSE(dumpInto(fd));
  close(fd);
  close(filler);
  umount(dir);
  rmdir(dir);
}

/// A pipe that nobody reads would block for ever, a read-only file or none at all can't hold a report.
TEST(ReportFile, WhatIsNoWritableFileIsRefused) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_FALSE(dumpInto(ends[1]));
  EXPECT_FALSE(dumpInto(-1));
  int readOnly = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  EXPECT_FALSE(dumpInto(readOnly));
  int full = open("/dev/full", O_RDWR | O_CLOEXEC);
  EXPECT_FALSE(dumpInto(full));
  for (int fd : {ends[0], ends[1], readOnly, full}) close(fd);
}

}  // namespace
}  // namespace kelvane_test
