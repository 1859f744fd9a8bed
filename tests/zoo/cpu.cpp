// The CPUs: who computes, and who isn't let.

#include <sched.h>
#include <unistd.h>

#include <mutex>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

/// Binds this thread, and who descends from it, to the first CPU that it may use.
void pin() {
  cpu_set_t allowed;
  must(sched_getaffinity(0, sizeof allowed, &allowed), "sched_getaffinity");
  size_t cpu = 0;
  while (!CPU_ISSET(cpu, &allowed)) ++cpu;
  CPU_ZERO(&allowed);
  CPU_SET(cpu, &allowed);
  must(sched_setaffinity(0, sizeof allowed, &allowed), "sched_setaffinity");
}

void schedule(int policy, int priority = 0) {
  const sched_param parameter{priority};
  must(sched_setscheduler(0, policy, &parameter), "a scheduling policy");
}

void outrank() {
  pin();
  schedule(SCHED_FIFO, 5);
}

const LoneCase kComputing("computing", {"own-cpu"}, burn);

const LoneCase kCalling("computing-in-calls", {"own-cpu"}, [] {
  while (getppid() > 0) {
  }
});

const LoneCase kStarved("starved", {"starved", "hog"}, [] {
  pin();
  for (int i = 0; i < 9; ++i) process("hog", {}, burn);
  burn();
});

const LoneCase kOutranked("starved-by-realtime", {"starved", "realtime"}, [] {
  pin();
  process("realtime", outrank, burn);
  burn();
});

const LoneCase kOwnThreads("starved-by-own-threads", {"starved", "sibling"}, [] {
  pin();
  for (int i = 0; i < 9; ++i) thread("sibling", {}, burn);
  burn();
});

constexpr const char* kHolderStarved = "starved|priority-inversion";

const LoneCase kMutexStarved("mutex-starved", {kHolderStarved, "holder", "lock|sleeping", "hog"}, [] {
  static std::mutex mutex;
  thread(
      "holder", [] { pin(), schedule(SCHED_IDLE), mutex.lock(); }, burn);
  process("hog", pin, burn);
  mutex.lock();
});

const LoneCase kChainStarved("chain-starved", {kHolderStarved, "logger", "lock|sleeping", "db|hog"}, [] {
  static std::mutex db;
  auto& log = sharedMutex();
  process(
      "logger", [&] { pin(), schedule(SCHED_IDLE), log.lock(); }, burn);
  process("hog", pin, burn);
  thread("db", taking(db), taking(log));
  db.lock();
});

constexpr Truth kTruth{"priority-inversion", "low|middle", "starved|lock|sleeping", "low|middle"};

const LoneCase kInversion("priority-inversion", kTruth, [] {
  static std::mutex mutex;
  thread(
      "low", [] { pin(), mutex.lock(); }, burn);
  process("middle", outrank, burn);
  schedule(SCHED_FIFO, 10);
  mutex.lock();
});

}  // namespace
}  // namespace zoo
