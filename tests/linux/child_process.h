#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
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

  /// Returns when the next step is done and the process is about to sleep again.
  void step() const {
    char byte = 0;
    ASSERT_EQ(write(go_, &byte, 1), 1);
    ASSERT_EQ(read(done_, &byte, 1), 1);
    usleep(2000);
  }

 private:
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
