#pragma once

#include <cstdint>

#include "client/include/quorvel.hpp"
#include "client/sample/options.h"
#include "client/sample/workers.h"

namespace quorvel_sample {

/// The application's main loop: a timer hands jobs to the workers, a pipe brings their results back. Each
/// turn is an operation that wants a trace if it hangs; waiting for events is none.
class MainLoop {
 public:
  explicit MainLoop(const Options& options);
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Runs until the last hang is over, or SIGINT or SIGTERM; the process's exit status.
  int run();

 private:
  void watch();
  bool add(int fd);
  void turn(int fd);
  void tick();
  void hang();
  void reportIfLong(uint64_t startTicks, uint64_t endTicks);
  void noteConnection(int state);
  void summarise() const;

  const Options options_;
  const int signalFd_;  ///< before the workers, who inherit that its signals are blocked
  Workers workers_;
  const int epollFd_;
  const int timerFd_;
  int quorvelFd_ = -1;
  int connection_ = 0;  ///< what qv_watch or qv_process said last

  uint64_t ticks_ = 0;
  uint64_t nextHangTick_ = 0;
  int hangs_ = 0;
  uint64_t turns_ = 0;
  uint64_t results_ = 0;
  bool done_ = false;
};

}  // namespace quorvel_sample
