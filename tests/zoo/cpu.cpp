// The CPUs: who computes, and who isn't let.

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <mutex>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

void schedule(int policy, int priority = 0) {
  const sched_param parameter{priority};
  must(sched_setscheduler(0, policy, &parameter), "a scheduling policy");
}

const LoneCase kComputing("computing", {"own-cpu"}, burn);

const LoneCase kCalling("computing-in-calls", {"own-cpu"}, [] {
  while (getppid() > 0) {
  }
});

const LoneCase kStarved("starved", {"starved", "hog"}, [] {
  pin();
  for (int i = 0; i < 9; ++i)
    process(
        "hog", [] {}, burn);
  burn();
});

const LoneCase kOutranked("starved-by-realtime", {"starved", "realtime"}, [] {
  pin();
  process(
      "realtime", [] {}, [] { schedule(SCHED_FIFO, 10), burn(); });
  burn();
});

const LoneCase kOwnThreads("starved-by-own-threads", {"starved", "sibling"}, [] {
  pin();
  for (int i = 0; i < 9; ++i)
    thread(
        "sibling", [] {}, burn);
  burn();
});

const LoneCase kHolderStarved("mutex-starved", {"starved|priority-inversion", "holder", "lock|sleeping", "hog"}, [] {
  static std::mutex mutex;
  thread(
      "holder", [] { pin(), schedule(SCHED_IDLE), mutex.lock(); }, burn);
  process(
      "hog", [] { pin(); }, burn);
  mutex.lock();
});

const LoneCase kChainStarved("chain-starved", {"starved|priority-inversion", "logger", "lock|sleeping", "db|hog"}, [] {
  static std::mutex db;
  auto& log = sharedMutex();
  process(
      "logger", [&] { pin(), schedule(SCHED_IDLE), pthread_mutex_lock(&log); }, burn);
  process(
      "hog", [] { pin(); }, burn);
  thread(
      "db", [] { db.lock(); }, [&] { pthread_mutex_lock(&log); });
  db.lock();
});

const LoneCase kInversion("priority-inversion",
                          {"priority-inversion", "low|middle", "starved|lock|sleeping", "low|middle"}, [] {
                            static std::mutex mutex;
                            thread(
                                "low", [] { pin(), mutex.lock(); }, burn);
                            process(
                                "middle", [] {}, [] { pin(), schedule(SCHED_FIFO, 5), burn(); });
                            schedule(SCHED_FIFO, 10);
                            mutex.lock();
                          });

}  // namespace
}  // namespace zoo
