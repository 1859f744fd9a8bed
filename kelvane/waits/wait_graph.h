#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kelvane/threads/thread_facts.h"

namespace kelvane {

/// What a thread waits for.
enum class WaitKind : uint8_t {
  lock,           // a mutex, or whatever else one thread owns
  readWriteLock,  // for its writer
  readers,        // a read-write lock, for its readers, of whom nobody keeps a list
  streamLock,     // of a stdio stream
  threadEnd,      // pthread_join
  signal,         // a condition variable, a semaphore: nobody owns those
  peer,           // the other end of a pipe, a socket, …
  events,         // any of several descriptors
  child,          // the end of a child process, or its execution
  fileLock,
  network,  // another machine
  server,   // of a file system
  tracer,   // which keeps it stopped
};
inline constexpr auto kLastWaitKind = WaitKind::tracer;

/// "lock", "read-write lock", …: the kind in a report.
const char* waitKindName(WaitKind kind);

enum class Sureness : uint8_t {
  certain,  // it alone can end the wait, going by what the kernel or the lock itself says
  likely,
  guess,
};
const char* surenessName(Sureness sureness);

/// One who can end a wait.
struct WaitHolder {
  pid_t pid = 0;
  pid_t tid = 0;
  Sureness sureness = Sureness::guess;
  std::string evidence;  // for people
};

/// What thread `tid` waits for, and who can end that, likeliest first.
struct PartyWait {
  pid_t tid = 0;
  WaitKind kind = WaitKind::lock;
  std::string object;  // for people, with its article: "a pipe", "the file /var/lib/app.db"
  std::vector<WaitHolder> holders;
  /// Where it has no holder, but only threads of its own process can end it: those, without evidence. Which
  /// of them is to do so can't be seen.
  std::vector<WaitHolder> candidates{};
  bool hasMoreCandidates = false;  // than are named
  bool isRetried = false;          // it doesn't wait, but tries again and again and sleeps in between
  uint64_t timeLeftNs = 0;  // at the look, until it gives up by itself; 0: it doesn't, or that is not known
};

/// A thread that waits or is waited for.
struct WaitParty {
  pid_t pid = 0;
  std::string process;
  ThreadFacts facts;
};

/// What a further look at a party has shown, some time after the first.
struct PartyWatch {
  pid_t tid = 0;
  bool moved = false;      // it was not in the same wait all the time
  bool frozen = false;     // its control group is
  bool throttled = false;  // its control group had used up its CPU time meanwhile
  uint64_t watchedNs = 0;  // how long that was
  uint64_t ranNs = 0;      // how long it had a CPU of that
};

struct WaitGraph {
  std::vector<WaitParty> parties;  // the hung thread first
  std::vector<PartyWait> waits;
  std::vector<PartyWatch> watches;
};

const WaitParty* partyOf(const WaitGraph& graph, pid_t tid);
const PartyWait* waitOf(const WaitGraph& graph, pid_t tid);
const PartyWatch* watchOf(const WaitGraph& graph, pid_t tid);

}  // namespace kelvane
