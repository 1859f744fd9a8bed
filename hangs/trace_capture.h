#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "abi/kelvane.h"
#include "platform/trace_library.h"

namespace quorveld {

/// What a report says, in short. What isn't known is empty.
struct ReportFinding {
  std::string cause;
  std::string culprit;
  std::string signature;
};

/// The trace-capture library, loaded at run time so that the daemon also runs on devices that lack it.
///
/// Loaded once, on first use; the outcome is final. The load is safe from any thread, the dump belongs to the
/// work queue.
class TraceCapture {
 public:
  /// True when the library and its entry point are there.
  bool isKelvaneAvailable();

  /// Has the library write a report into the open file `fd`, of the time from `startTicks` to `endTicks`,
  /// with `reason` as its header. Synchronous. False when there is no library or the report is not whole.
  bool dumpKelvaneToFile(int fd, uint64_t startTicks, uint64_t endTicks, const std::string& reason);

  /// Says whose launch the next dump is about, whose header names no process. `connectedTicks`: when that
  /// first connected; 0 if it is not known to have. Does nothing where the library can't use it.
  void nameLaunch(int32_t pid, uint64_t connectedTicks);

  /// What the report that was dumped last says, in UTF-8; all empty where the library can't tell. Not a byte
  /// of the report is read for it.
  ReportFinding lastFinding() const;

  /// Has the library note from now on where the threads of these operations are, for the reports of them, and
  /// no others'; the most wanted come first. Call it at each hang check, and when something changes. Loads
  /// the library for the first of them; waits until a process that it starts executes its program, as a
  /// report does. Does nothing where the library can't; why the system won't let it is logged once.
  void samplePending(const std::vector<kelvane_pending>& pending);

 private:
  void loadKelvaneLibrary();
  const char* optionKey(const char* exportName);

  std::once_flag loaded_;
  std::unique_ptr<platform::TraceLibrary> library_;
  kelvane_dump_function dump_ = nullptr;
  kelvane_sample_function sample_ = nullptr;
  kelvane_finding_function finding_ = nullptr;
  kelvane_launch_function launch_ = nullptr;
  const char* reasonStringKey_ = nullptr;
  const char* noSymbolicateKey_ = nullptr;
  const char* minTimestampKey_ = nullptr;
  const char* maxTimestampKey_ = nullptr;
};

}  // namespace quorveld
