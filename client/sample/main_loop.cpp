#include "client/sample/main_loop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace quorvel_sample {
namespace {

constexpr const char* kTurnName = "MainThread";
constexpr long kTickNs = 100'000'000;
constexpr uint64_t kTicksBetweenHangs = 10;
constexpr uint64_t kTicksAfterLastHang = 25;  // a fence hang is looked at a second after it was reported
constexpr int64_t kFence = 1;
constexpr double kTicksPerMs = 24'000;
constexpr double kLongTurnMs = 250;

double milliseconds(uint64_t startTicks, uint64_t endTicks) {
  return static_cast<double>(endTicks - startTicks) / kTicksPerMs;
}

void note(const char* what, int result) {
  if (result < 0) std::printf("%s: %s\n", what, std::strerror(-result));
}

/// Blocks SIGINT and SIGTERM, in threads yet to come too, and gives the descriptor that reads them.
int openSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

int openTimer() {
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  const itimerspec schedule{{0, kTickNs}, {0, kTickNs}};
  timerfd_settime(fd, 0, &schedule, nullptr);
  return fd;
}

}  // namespace

MainLoop::MainLoop(const Options& options)
    : options_(options),
      signalFd_(openSignals()),
      workers_(options.threads),
      epollFd_(epoll_create1(EPOLL_CLOEXEC)),
      timerFd_(openTimer()),
      nextHangTick_(kTicksBetweenHangs) {}

MainLoop::~MainLoop() {
  qv_disconnect();
  for (const int fd : {epollFd_, timerFd_, signalFd_}) {
    if (fd >= 0) close(fd);
  }
}

bool MainLoop::add(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  return fd >= 0 && epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) == 0;
}

void MainLoop::watch() {
  connection_ = qv_watch(options_.bundleId.c_str(), "quorvel-sample");
  if (connection_ == 0) {
    std::printf("pid %d, %s: watched\n", getpid(), options_.bundleId.c_str());
  } else if (connection_ == -EINPROGRESS) {
    std::printf("pid %d, %s: the daemon has yet to answer\n", getpid(), options_.bundleId.c_str());
  } else {
    std::printf("pid %d, %s: not watched, no daemon (%s); will try again\n", getpid(),
                options_.bundleId.c_str(), std::strerror(-connection_));
  }
  quorvelFd_ = qv_fd();
}

int MainLoop::run() {
  watch();
  if (!add(timerFd_) || !add(signalFd_) || !add(workers_.resultFd()) || !add(quorvelFd_)) {
    std::perror("quorvel-sample: can't set up the main loop");
    return 1;
  }
  const quorvel::Slot slot(kTurnName);
  std::array<epoll_event, 8> events{};
  while (!done_) {
    const int count = epoll_wait(epollFd_, events.data(), events.size(), -1);
    if (count < 0 && errno != EINTR) {
      std::perror("quorvel-sample: epoll_wait");
      return 1;
    }
    const uint64_t start = qv_ticks();
    {
      const quorvel::ScopedTurn turnMark(slot, true);
      for (int i = 0; i < count; ++i) turn(events[static_cast<size_t>(i)].data.fd);
    }
    ++turns_;
    if (options_.report) reportIfLong(start, qv_ticks());
  }
  summarise();
  return 0;
}

void MainLoop::turn(int fd) {
  if (fd == timerFd_) {
    tick();
  } else if (fd == workers_.resultFd()) {
    results_ += static_cast<uint64_t>(workers_.takeResults());
  } else if (fd == quorvelFd_) {
    noteConnection(qv_process());
  } else {
    std::puts("interrupted");
    done_ = true;
  }
}

/// The ticks that a hang swallowed come as one.
void MainLoop::tick() {
  uint64_t expirations = 0;
  if (read(timerFd_, &expirations, sizeof expirations) < 0) return;
  ++ticks_;
  workers_.submit(ticks_);
  if (options_.hangSeconds == 0 || ticks_ < nextHangTick_) return;
  if (hangs_ == options_.times) {
    done_ = true;
    return;
  }
  hang();
  nextHangTick_ = ticks_ + (hangs_ < options_.times ? kTicksBetweenHangs : kTicksAfterLastHang);
}

void MainLoop::hang() {
  ++hangs_;
  std::printf("hang %d of %d: %s for %.3f s\n", hangs_, options_.times, describe(options_.how),
              options_.hangSeconds);
  if (options_.fence) note("fence begin not sent", qv_fence_begin(kFence));
  block(options_.how, std::chrono::nanoseconds(static_cast<int64_t>(options_.hangSeconds * 1e9)));
  if (options_.fence) note("fence end not sent", qv_fence_end(kFence));
  std::printf("hang %d of %d: over\n", hangs_, options_.times);
}

void MainLoop::reportIfLong(uint64_t startTicks, uint64_t endTicks) {
  const double durationMs = milliseconds(startTicks, endTicks);
  if (durationMs < kLongTurnMs) return;
  const int result = qv_report_hang(kTurnName, 0, startTicks, endTicks, true);
  note("hang not reported", result);
  if (result == 0) std::printf("reported a turn of %.0f ms\n", durationMs);
}

void MainLoop::noteConnection(int state) {
  if (state == connection_ || state == -EINPROGRESS) return;
  if (state == 0) std::puts("daemon found: watched");
  if (connection_ == 0) std::printf("daemon lost (%s); will try again\n", std::strerror(-state));
  connection_ = state;
}

void MainLoop::summarise() const {
  std::printf("%llu turns, %llu results from %d threads, %d hangs, %llu operations without a slot\n",
              static_cast<unsigned long long>(turns_), static_cast<unsigned long long>(results_),
              options_.threads, hangs_, static_cast<unsigned long long>(qv_untracked()));
}

}  // namespace quorvel_sample
