#include "tests/zoo/zoo.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "client/include/quorvel.h"

namespace zoo {
namespace {

constexpr int kSkipped = 77;

/// Waits without a lock and without whoever wakes: neither may look like a part of the hang. A child that has
/// skipped ends its parent, too.
void await(const std::atomic<bool>& ready, pid_t child = 0) {
  siginfo_t ended{};
  for (; !ready; nap(1)) {
    if (child > 0 && waitid(P_PID, child, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        ended.si_status == kSkipped)
      _exit(kSkipped);
  }
}

void workForMs(int ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
  }
}

struct Queue {
  std::mutex mutex;
  std::condition_variable filled;
  int jobs = 0;
};

void fillQueue(Queue& queue) {
  const std::lock_guard lock(queue.mutex);
  ++queue.jobs;
  queue.filled.notify_one();
}

void serveQueue(Queue& queue) {
  while (true) {
    std::unique_lock lock(queue.mutex);
    queue.filled.wait(lock, [&] { return queue.jobs > 0; });
    --queue.jobs;
    lock.unlock();
    workForMs(1);
  }
}

void serveEvents() {
  const int events = epoll_create1(EPOLL_CLOEXEC);
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec every{{0, 70'000'000}, {0, 70'000'000}};
  timerfd_settime(timer, 0, &every, nullptr);
  epoll_event event{.events = EPOLLIN, .data = {.fd = timer}};
  epoll_ctl(events, EPOLL_CTL_ADD, timer, &event);
  while (true) {
    uint64_t ticks = 0;
    if (epoll_wait(events, &event, 1, 40) == 1 && read(timer, &ticks, sizeof ticks) > 0) workForMs(1);
  }
}

/// Waits until the daemon has been asked to watch; it may be at a report just now.
void watch() {
  int state = qv_watch("com.example.zoo", "zoo");
  for (int tries = 0; state != 0 && tries < 1000; ++tries) {
    nap(20);
    state = qv_process();
  }
  if (state != 0) skip(std::string("no daemon: ") + std::strerror(-state));
}

void list() {
  for (const Case* one : Case::all()) {
    const Truth& truth = one->truth;
    std::printf("%s\t%s\t%s\t%s\t%s\t%d\n", one->name, truth.right, truth.culprit, truth.half, truth.along,
                one->alone);
  }
}

}  // namespace

std::vector<Case*>& Case::all() {
  static std::vector<Case*> cases;
  return cases;
}

void skip(const std::string& why) {
  std::printf("%s\n", why.c_str());
  std::fflush(stdout);
  _exit(kSkipped);
}

int must(int result, const char* what) {
  if (result < 0) skip(std::string(what) + ": " + std::strerror(errno));
  return result;
}

void named(const char* name) {
  prctl(PR_SET_NAME, name);
}

void rest() {
  while (true) std::this_thread::sleep_for(std::chrono::hours(1));
}

void burn() {
  volatile bool on = true;
  while (on) {
  }
}

void nap(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void thread(const char* name, Action first, Action after) {
  std::atomic<bool> ready = false;
  std::thread([&ready, name, first = std::move(first), after = std::move(after)] {
    named(name);
    if (first) first();
    ready = true;
    after();
  }).detach();
  await(ready);
}

pid_t process(const char* name, const Action& first, const Action& after) {
  auto& ready = shared<std::atomic<bool>>();
  const pid_t pid = must(fork(), "fork");
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    named(name);
    if (first) first();
    ready = true;
    after();
    _exit(0);
  }
  await(ready, pid);
  return pid;
}

Pipe::Pipe() {
  std::array<int, 2> ends{};
  must(pipe(ends.data()), "pipe");
  reader = ends[0];
  writer = ends[1];
}

void SharedMutex::make(int protocol, int robustness) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setprotocol(&attributes, protocol);
  pthread_mutexattr_setrobust(&attributes, robustness);
  pthread_mutex_init(&mutex, &attributes);
}

SharedMutex& sharedMutex() {
  auto& mutex = shared<SharedMutex>();
  mutex.make(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_STALLED);
  return mutex;
}

int fedBy(const char* name, const Action& after) {
  const Pipe pipe;
  process(
      name, [&] { close(pipe.reader); }, after);
  close(pipe.writer);
  return pipe.reader;
}

void readByte(int fd) {
  char byte = 0;
  if (read(fd, &byte, 1) < 0) std::perror("read");
}

void writeByte(int fd) {
  if (write(fd, "z", 1) < 0) std::perror("write");
}

void startCrowd() {
  static Queue queue;
  static std::mutex log;
  process("crowd-child", {});
  for (const char* name : {"crowd-worker-1", "crowd-worker-2", "crowd-worker-3"})
    thread(name, {}, [] { serveQueue(queue); });
  thread("crowd-source", {}, [] {
    while (true) nap(25), fillQueue(queue);
  });
  thread("crowd-events", {}, serveEvents);
  const Action keepLog = [] {
    while (true) {
      const std::lock_guard lock(log);
      nap(15);
    }
  };
  for (const char* name : {"crowd-log-1", "crowd-log-2"}) thread(name, {}, keepLog);
}

}  // namespace zoo

/// zoo --list: the truth about each case. zoo [--crowd] CASE: hangs, until it is killed.
int main(int argc, char** argv) {
  using zoo::Case;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments == std::vector<std::string>{"--list"}) {
    zoo::list();
    return 0;
  }
  const bool crowd = !arguments.empty() && arguments.front() == "--crowd";
  for (const Case* one : Case::all()) {
    if (arguments.size() != (crowd ? 2 : 1) || arguments.back() != one->name) continue;
    constexpr int kLongestSeconds = 300;  // whatever becomes of who started it
    alarm(kLongestSeconds);
    zoo::watch();
    if (crowd) zoo::startCrowd();
    qv_slot* turn = qv_slot_claim(one->name);
    qv_slot_begin(turn, true);
    one->hang();
    qv_slot_end(turn);
    std::printf("%s did not hang\n", one->name);
    return 1;
  }
  std::fputs("Usage: zoo --list | [--crowd] CASE\n", stderr);
  return 2;
}
