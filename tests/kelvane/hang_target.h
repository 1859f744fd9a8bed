#pragma once

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "abi/kelvane.h"

namespace kelvane_test {

using Json = nlohmann::json;

/// A running victim process (victim.cpp); killed and collected by the destructor.
class HangTarget {
 public:
  explicit HangTarget(const std::string& mode, int count = 0);
  /// Through a shell: `script` executes the victim, whose path is $1, in the end.
  static HangTarget byScript(const std::string& script);
  ~HangTarget();
  HangTarget(const HangTarget&) = delete;
  HangTarget& operator=(const HangTarget&) = delete;

  pid_t pid() const { return pid_; }
  /// The thread that the victim's mode is about.
  pid_t thread() const { return thread_; }
  /// The states (proc(5)) of all its threads, in the order of /proc.
  std::string threadStates() const;
  /// Waits until all threads are in `state`; false if they never are.
  bool reaches(char state) const;
  void signal(int number) const;

 private:
  explicit HangTarget(const std::vector<std::string>& command);

  pid_t pid_ = -1;
  pid_t thread_ = -1;
};

/// The library as the daemon holds it: loaded at run time, known by its exported names alone.
class Library {
 public:
  explicit Library(const char* path = KELVANE_LIBRARY);
  kelvane_dump_function dump = nullptr;
  kelvane_finding_function finding = nullptr;
  kelvane_launch_function launch = nullptr;
  const char* key(const char* symbol) const;

 private:
  void* handle_ = nullptr;
};

/// A header as the daemon writes it.
Json headerOf(pid_t pid, int64_t threadId);

/// What a call returned, and the file that it left.
struct Dump {
  bool whole = false;
  std::chrono::milliseconds took{};  // without what others had of the CPU that the caller was ready for
  std::string text;
  kelvane_finding finding{};
  Json report;  // discarded if the text is no strict JSON

  /// The reasons given for leaving out `what`; empty if it is not among the left out.
  std::string whyLeftOut(const std::string& what) const;
  /// Names of the thread's stack frames, innermost first, from the sample's chain of "stackFrames".
  std::vector<std::string> stackOf(pid_t tid) const;
  /// The thread's entry in "threads"; null if it has none.
  Json thread(pid_t tid) const;
};

/// Whether others have the CPUs so much that a look at a process may run out of time; by itself it takes a
/// fifth of its time or less. Going by /proc/pressure/cpu: a report may be so late that it says nothing.
bool isShortOfCpu();

/// Makes a report through the library into a fresh file; null text: no ReasonString option.
Dump dumpWith(const char* reason, bool symbolicate = true);
Dump dumpBy(const Library& library, const char* reason, bool symbolicate = true);
Dump dumpOnceOf(pid_t pid, int64_t threadId, bool symbolicate = true);
/// The same of a process that nothing holds up: anew, some times, where a machine with other work has left
/// the look less of its time than it takes.
Dump dumpOf(pid_t pid, int64_t threadId, bool symbolicate = true);

/// How many descriptors this process has, one for looking included.
size_t openDescriptors();

/// The fewest after one of some reports of `victim`. On a busy machine what a report has ended may take
/// longer to go than it waits for that, and holds a descriptor or two until a report after it.
size_t settledDescriptors(const HangTarget& victim);

/// Whether one of the names has `part` in it.
bool contains(const std::vector<std::string>& names, const std::string& part);

/// What the viewers' importers ask of a file: every event has its members, every interval nests, every
/// reference leads to a frame, and no chain of parents is a circle (a parent has a smaller id).
void expectOpensInViewers(const Json& report);

}  // namespace kelvane_test
