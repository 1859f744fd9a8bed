#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace quorveld::linux_platform {

/// A forked process that performs its steps one by one when told to, and sleeps between them, so that all its
/// figures stand still while a test looks. Killed and reaped on destruction.
class ChildProcess {
 public:
  using Steps = std::vector<std::function<void()>>;

  explicit ChildProcess(const Steps& steps) {
    int go[2];
    int done[2];
    if (pipe(go) != 0 || pipe(done) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      char byte = 0;
      for (const auto& step : steps) {
        if (read(go[0], &byte, 1) != 1) break;
        step();
        if (write(done[1], &byte, 1) != 1) break;
      }
      for (;;) pause();
    }
    close(go[0]);
    close(done[1]);
    go_ = go[1];
    done_ = done[0];
    waitUntilAsleep();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    close(go_);
    close(done_);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  int32_t pid() const { return pid_; }

  /// Returns when the next step is done and the process sleeps again.
  void step() const {
    char byte = 0;
    begin();
    ASSERT_EQ(read(done_, &byte, 1), 1);
    waitUntilAsleep();
  }

  /// Has the next step begin: for one that never ends.
  void begin() const { ASSERT_EQ(write(go_, "", 1), 1); }

  /// Returns when all threads sleep and go on sleeping, so that nothing moves the figures of the process any
  /// more: a program that starts sleeps now and then on its way.
  void waitUntilAsleep() const {
    constexpr int kMostLooks = 3'000;
    std::string before;
    for (int looks = 0; looks < kMostLooks; ++looks) {
      const std::string spent = spentAsleep();
      if (!spent.empty() && spent == before) return;
      before = spent;
      usleep(20'000);
    }
    ADD_FAILURE() << "process " << pid_ << " doesn't come to rest";
  }

 private:
  /// What each thread has run so far, of proc(5)'s schedstat; empty unless all of them sleep.
  std::string spentAsleep() const {
    std::error_code gone;
    std::stringstream spent;
    const std::filesystem::path threads = "/proc/" + std::to_string(pid_) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads, gone)) {
      std::stringstream text;
      text << std::ifstream(thread.path() / "stat").rdbuf();
      const size_t name = text.str().rfind(") ");
      if (name == std::string::npos || text.str()[name + 2] != 'S') return {};
      spent << thread.path().filename() << std::ifstream(thread.path() / "schedstat").rdbuf();
    }
    return gone ? std::string() : spent.str();
  }

  pid_t pid_;
  int go_;
  int done_;
};

/// Spends this much CPU time in the calling thread.
inline void burn(int milliseconds) {
  const auto spent = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
  };
  volatile unsigned work = 0;
  for (const auto until = spent() + milliseconds; spent() < until;) {
    for (int i = 0; i < 20'000; ++i) work = work + 1;
  }
}

}  // namespace quorveld::linux_platform
