#pragma once

#include <pthread.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// What the cases of the zoo are made of. A case hangs the main thread for ever, for one cause; the truth
/// about it stands beside it and is written before any verdict on it is read.
namespace zoo {

using Action = std::function<void()>;

/// Each a list of alternatives, "a|b". People are named as prctl(2) has them named.
struct Truth {
  const char* right;         ///< the causes that are right
  const char* culprit = "";  ///< who must be named besides; "": nobody else did it
  const char* half = "";     ///< causes that are true, but of a symptom or of a part of the way
  const char* along = "";    ///< who else is involved: naming them is no fault
};

/// Constructed once for each case, before main.
struct Case {
  Case(const char* caseName, const Truth& itsTruth, void (*itsHang)(), bool isAlone = false)
      : name(caseName), truth(itsTruth), hang(itsHang), alone(isAlone) {
    all().push_back(this);
  }
  static std::vector<Case*>& all();

  const char* name;
  Truth truth;
  void (*hang)();
  bool alone;  ///< it takes the CPUs or the disk from others, or would be put out by them
};

struct LoneCase : Case {
  LoneCase(const char* caseName, const Truth& itsTruth, void (*itsHang)())
      : Case(caseName, itsTruth, itsHang, true) {}
};

/// Ends the program: the case can't be had on this machine.
[[noreturn]] void skip(const std::string& why);
/// `result`; ends the program as `skip` does if it is negative, with what errno says of `what`.
int must(int result, const char* what);

void named(const char* name);  ///< the calling thread

void rest();  ///< sleeps for ever
void burn();  ///< computes for ever

/// A thread of that name, which lasts as long as the program. Returns when it has done `first`, if there is
/// one; then it does `after`.
void thread(const char* name, Action first, Action after = rest);
/// A process, likewise; main thread only.
pid_t process(const char* name, const Action& first, const Action& after = rest);

/// Zeroed memory that later processes share.
template <typename T>
T& shared() {
  return *static_cast<T*>(
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

void nap(int ms);

struct Pipe {
  Pipe();
  int reader;
  int writer;
};

/// A lock for threads, and for processes that share its memory.
struct SharedMutex {
  void make(int protocol, int robustness);
  void lock() { pthread_mutex_lock(&mutex); }
  pthread_mutex_t mutex;
};
SharedMutex& sharedMutex();

template <typename Mutex>
Action taking(Mutex& mutex) {
  return [&mutex] { mutex.lock(); };
}

/// The reading end of a pipe whose other end that process alone has.
int fedBy(const char* name, const Action& after = rest);
void readByte(int fd);
void writeByte(int fd);

/// Other work beside the hang, as an application has it: workers with a queue, a loop of events with
/// time-outs, a lock that is taken for short times, a child. All are named "crowd-…".
void startCrowd();

}  // namespace zoo
