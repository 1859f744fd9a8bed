// Locks, and what else threads wait for each other in: all of it futexes to the kernel.

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

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
  thread("holder", [] { mutex.lock(); });
  mutex.lock();
});

const LoneCase kMutexComputing("mutex-computing", {"lock", "cruncher", "sleeping"}, [] {
  static std::mutex mutex;
  thread(
      "cruncher", [] { mutex.lock(); }, burn);
  mutex.lock();
});

const Case kMutexInheriting("mutex-inheriting", {"lock", "holder", "sleeping"}, [] {
  static pthread_mutex_t mutex;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  pthread_mutex_init(&mutex, &attributes);
  thread("holder", [] { pthread_mutex_lock(&mutex); });
  pthread_mutex_lock(&mutex);
});

const Case kMutexShared("mutex-shared", {"lock", "keeper", "sleeping"}, [] {
  auto& mutex = sharedMutex();
  process("keeper", [&] { pthread_mutex_lock(&mutex); });
  pthread_mutex_lock(&mutex);
});

const Case kMutexRobust("mutex-robust", {"lock", "keeper", "sleeping"}, [] {
  auto& mutex = sharedMutex(true);
  process("keeper", [&] { pthread_mutex_lock(&mutex); });
  pthread_mutex_lock(&mutex);
});

const Case kMutexTimed("mutex-timed", {"lock", "holder", "sleeping"}, [] {
  static std::timed_mutex mutex;
  thread("holder", [] { mutex.lock(); });
  while (!mutex.try_lock_for(std::chrono::milliseconds(90))) {
  }
});

// It gets the lock again and again, and always has to wait for it.
const Case kConvoy("convoy", {"lock", "greedy", "sleeping"}, [] {
  static pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, nullptr);
  thread(
      "greedy", [] {},
      [] {
        while (true) {
          pthread_mutex_lock(&mutex);
          nap(60);
          pthread_mutex_unlock(&mutex);
          usleep(200);
        }
      });
  while (true) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
});

const Case kWriter("rwlock-writer", {"lock", "writer", "sleeping"}, [] {
  static std::shared_mutex mutex;
  thread("writer", [] { mutex.lock(); });
  mutex.lock_shared();
});

const Case kReader("rwlock-reader", {"lock", "reader", "lock|sleeping"}, [] {
  static std::shared_mutex mutex;
  thread("reader", [] { mutex.lock_shared(); });
  mutex.lock();
});

const Case kStdio("stdio", {"lock", "printer", "sleeping"}, [] {
  static FILE* const file = std::fopen("/dev/null", "w");
  thread("printer", [] { flockfile(file); });
  std::fputs("hello", file);
});

const Case kJoin("join", {"lock|peer", "loader", "sleeping"},
                 [] { std::thread([] { named("loader"), rest(); }).join(); });

const Case kJoinPipe("join-pipe", {"peer", "feeder", "lock|sleeping", "loader"}, [] {
  static const Pipe pipe;
  process("feeder", [] { close(pipe.reader); });
  close(pipe.writer);
  std::thread([] { named("loader"), readByte(pipe.reader); }).join();
});

/// Two who pass a turn to and fro, until "producer" keeps it.
void waitForProducer(const Action& keep) {
  static std::mutex mutex;
  static std::condition_variable changed;
  static int turns = 0;
  static bool wanted = true;
  thread(
      "producer", [] {},
      [keep] {
        for (int i = 0; i < 40; ++i) {
          nap(10);
          std::unique_lock lock(mutex);
          changed.wait(lock, [] { return wanted; });
          wanted = false;
          ++turns;
          changed.notify_all();
        }
        keep();
      });
  for (int taken = 0;; ++taken) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return turns > taken; });
    wanted = true;
    changed.notify_all();
  }
}

const Case kCondition("condition", {"lock|peer", "producer", "sleeping"}, [] { waitForProducer(rest); });

const LoneCase kConditionBusy("condition-computing", {"lock|peer", "producer", "sleeping"},
                              [] { waitForProducer(burn); });

const LoneCase kFuture("future", {"lock|peer", "async-job", "sleeping"}, [] {
  static std::promise<int> promise;
  thread(
      "async-job", [] {},
      [] {
        burn();
        promise.set_value(1);
      });
  promise.get_future().get();
});

const Case kSemaphore("semaphore", {"lock|peer", "poster", "sleeping"}, [] {
  static sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  thread(
      "poster", [] {},
      [] {
        for (int i = 0; i < 20; ++i) {
          nap(20);
          sem_post(&semaphore);
        }
        rest();
      });
  while (true) sem_wait(&semaphore);
});

const Case kDeadlockSelf("deadlock-self", {"deadlock|lock", "itself", "sleeping"}, [] {
  static pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, nullptr);
  pthread_mutex_lock(&mutex);
  pthread_mutex_lock(&mutex);
});

const Case kDeadlock("deadlock", {"deadlock", "other", "lock|sleeping"}, [] {
  static std::mutex mine;
  static std::mutex theirs;
  mine.lock();
  thread(
      "other", [] { theirs.lock(); }, [] { mine.lock(); });
  theirs.lock();
});

const Case kDeadlockThree("deadlock-three", {"deadlock", "second", "lock|sleeping", "third"}, [] {
  static std::mutex first;
  static std::shared_mutex second;
  static std::mutex third;
  first.lock();
  thread(
      "third", [] { third.lock(); }, [] { first.lock(); });
  thread(
      "second", [] { second.lock(); }, [] { third.lock(); });
  second.lock_shared();
});

const Case kDeadlockShared("deadlock-processes", {"deadlock", "rival", "lock|sleeping"}, [] {
  auto& mine = sharedMutex();
  auto& theirs = sharedMutex();
  pthread_mutex_lock(&mine);
  process(
      "rival", [&] { pthread_mutex_lock(&theirs); }, [&] { pthread_mutex_lock(&mine); });
  pthread_mutex_lock(&theirs);
});

// Not it but those that it waits for are in each other's way.
const Case kDeadlockBehind("deadlock-behind", {"deadlock", "db", "lock|sleeping", "cache"}, [] {
  static std::mutex db;
  static std::mutex cache;
  thread(
      "cache", [] { cache.lock(); }, [] { nap(50), db.lock(); });
  thread(
      "db", [] { db.lock(); }, [] { cache.lock(); });
  db.lock();
});

const Case kDeadlockMixed("deadlock-mixed", {"deadlock", "server", "lock|peer|sleeping"}, [] {
  auto& mutex = sharedMutex();
  static const Pipe pipe;
  pthread_mutex_lock(&mutex);
  process(
      "server", [] { close(pipe.reader); }, [&] { pthread_mutex_lock(&mutex); });
  close(pipe.writer);
  readByte(pipe.reader);
});

const Case kChain("chain-sleeping", {"lock", "logger", "lock|sleeping", "db"}, [] {
  static std::mutex db;
  static std::mutex log;
  thread("logger", [] { log.lock(); });
  thread(
      "db", [] { db.lock(); }, [] { log.lock(); });
  db.lock();
});

const Case kChainStopped("chain-stopped", {"stopped", "store", "lock|sleeping", "db"}, [] {
  static std::mutex db;
  auto& store = sharedMutex();
  process(
      "store", [&] { pthread_mutex_lock(&store); }, [] { raise(SIGSTOP); });
  thread(
      "db", [] { db.lock(); }, [&] { pthread_mutex_lock(&store); });
  db.lock();
});

const Case kChainPipe("chain-pipe", {"peer", "backend", "lock|sleeping", "db"}, [] {
  static std::mutex db;
  static const Pipe pipe;
  process("backend", [] { close(pipe.reader); });
  close(pipe.writer);
  thread(
      "db", [] { db.lock(); }, [] { readByte(pipe.reader); });
  db.lock();
});

}  // namespace
}  // namespace zoo
