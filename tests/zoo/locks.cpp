// Locks, and what else threads wait for each other in: all of it futexes to the kernel.

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "tests/zoo/zoo.h"

namespace zoo {
namespace {

const Case kMutex("mutex", {"lock", "holder", "sleeping"}, [] {
  static std::mutex mutex;
  thread("holder", taking(mutex));
  mutex.lock();
});

const LoneCase kMutexComputing("mutex-computing", {"lock", "cruncher", "sleeping"}, [] {
  static std::mutex mutex;
  thread("cruncher", taking(mutex), burn);
  mutex.lock();
});

const Case kMutexInheriting("mutex-inheriting", {"lock", "holder", "sleeping"}, [] {
  static SharedMutex mutex;
  mutex.make(PTHREAD_PRIO_INHERIT, PTHREAD_MUTEX_STALLED);
  thread("holder", taking(mutex));
  mutex.lock();
});

const Case kMutexShared("mutex-shared", {"lock", "keeper", "sleeping"}, [] {
  auto& mutex = sharedMutex();
  process("keeper", taking(mutex));
  mutex.lock();
});

const Case kMutexRobust("mutex-robust", {"lock", "keeper", "sleeping"}, [] {
  auto& mutex = shared<SharedMutex>();
  mutex.make(PTHREAD_PRIO_NONE, PTHREAD_MUTEX_ROBUST);
  process("keeper", taking(mutex));
  mutex.lock();
});

const Case kMutexTimed("mutex-timed", {"lock", "holder", "sleeping"}, [] {
  static std::timed_mutex mutex;
  thread("holder", taking(mutex));
  while (!mutex.try_lock_for(std::chrono::milliseconds(90))) {
  }
});

// It gets the lock again and again, and always has to wait for it.
const Case kConvoy("convoy", {"lock", "greedy", "sleeping"}, [] {
  static std::mutex mutex;
  thread("greedy", {}, [] {
    for (;; std::this_thread::sleep_for(std::chrono::microseconds(200))) {
      const std::lock_guard lock(mutex);
      nap(60);
    }
  });
  while (true) const std::lock_guard lock(mutex);
});

const Case kWriter("rwlock-writer", {"lock", "writer", "sleeping"}, [] {
  static std::shared_mutex mutex;
  thread("writer", taking(mutex));
  mutex.lock_shared();
});

const Case kReader("rwlock-reader", {"lock", "reader", "sleeping"}, [] {
  static std::shared_mutex mutex;
  thread("reader", [] { mutex.lock_shared(); });
  mutex.lock();
});

const Case kStdio("stdio", {"lock", "printer", "sleeping"}, [] {
  static FILE* const file = std::fopen("/dev/null", "w");
  thread("printer", [] { flockfile(file); });
  std::fputs("hello", file);
});

const Case kJoin("join", {"lock|peer", "loader", "sleeping"}, [] {
  std::thread loader([] { named("loader"), rest(); });
  loader.join();
});

const Case kJoinPipe("join-pipe", {"peer", "feeder", "lock|sleeping", "loader"}, [] {
  const int pipe = fedBy("feeder");
  std::thread loader([pipe] { named("loader"), readByte(pipe); });
  loader.join();
});

/// Two who pass a turn to and fro, until "producer" keeps it.
void waitForProducer(void (*keep)()) {
  static std::mutex mutex;
  static std::condition_variable changed;
  static int turn = 0;
  const auto take = [](int mine) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [mine] { return turn == mine; });
    turn = 1 - mine;
    changed.notify_all();
  };
  thread("producer", {}, [take, keep] {
    for (int i = 0; i < 40; ++i) nap(10), take(0);
    keep();
  });
  while (true) take(1);
}

const Case kCondition("condition", {"lock|peer", "producer", "sleeping"}, [] { waitForProducer(rest); });

const LoneCase kConditionComputing("condition-computing", {"lock|peer", "producer", "sleeping"},
                                   [] { waitForProducer(burn); });

const LoneCase kFuture("future", {"lock|peer", "async-job", "sleeping"}, [] {
  static std::promise<int> promise;
  thread("async-job", {}, [] { burn(), promise.set_value(1); });
  promise.get_future().get();
});

const Case kSemaphore("semaphore", {"lock|peer", "poster", "sleeping"}, [] {
  static sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  thread("poster", {}, [] {
    for (int i = 0; i < 20; ++i) nap(20), sem_post(&semaphore);
    rest();
  });
  while (true) sem_wait(&semaphore);
});

const Case kDeadlockSelf("deadlock-self", {"deadlock|lock", "itself", "sleeping"}, [] {
  static std::mutex mutex;
  mutex.lock();
  mutex.lock();
});

const Case kDeadlock("deadlock", {"deadlock", "other", "lock|sleeping"}, [] {
  static std::mutex mine;
  static std::mutex theirs;
  mine.lock();
  thread("other", taking(theirs), taking(mine));
  theirs.lock();
});

const Case kDeadlockThree("deadlock-three", {"deadlock", "second", "lock|sleeping", "third"}, [] {
  static std::mutex first;
  static std::shared_mutex second;
  static std::mutex third;
  first.lock();
  thread("third", taking(third), taking(first));
  thread("second", taking(second), taking(third));
  second.lock_shared();
});

const Case kDeadlockShared("deadlock-processes", {"deadlock", "rival", "lock|sleeping"}, [] {
  auto& mine = sharedMutex();
  auto& theirs = sharedMutex();
  mine.lock();
  process("rival", taking(theirs), taking(mine));
  theirs.lock();
});

// Not it but those that it waits for are in each other's way.
const Case kDeadlockBehind("deadlock-behind", {"deadlock", "db", "lock|sleeping", "cache"}, [] {
  static std::mutex db;
  static std::mutex cache;
  thread("cache", taking(cache), [] { nap(50), db.lock(); });
  thread("db", taking(db), taking(cache));
  db.lock();
});

const Case kDeadlockMixed("deadlock-mixed", {"deadlock", "server", "lock|peer|sleeping"}, [] {
  auto& mutex = sharedMutex();
  mutex.lock();
  readByte(fedBy("server", taking(mutex)));
});

const Case kChain("chain-sleeping", {"lock", "logger", "sleeping", "db"}, [] {
  static std::mutex db;
  static std::mutex log;
  thread("logger", taking(log));
  thread("db", taking(db), taking(log));
  db.lock();
});

const Case kChainStopped("chain-stopped", {"stopped", "store", "lock|sleeping", "db"}, [] {
  static std::mutex db;
  auto& store = sharedMutex();
  process("store", taking(store), [] { raise(SIGSTOP); });
  thread("db", taking(db), taking(store));
  db.lock();
});

const Case kChainPipe("chain-pipe", {"peer", "backend", "lock|sleeping", "db"}, [] {
  static std::mutex db;
  const int pipe = fedBy("backend");
  thread("db", taking(db), [pipe] { readByte(pipe); });
  db.lock();
});

}  // namespace
}  // namespace zoo
