#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "abi/kelvane.h"
#include "platform/trace_library.h"

namespace quorveld {

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

 private:
  void loadKelvaneLibrary();
  const char* optionKey(const char* exportName);

  std::once_flag loaded_;
  std::unique_ptr<platform::TraceLibrary> library_;
  kelvane_dump_function dump_ = nullptr;
  const char* reasonStringKey_ = nullptr;
  const char* noSymbolicateKey_ = nullptr;
  const char* minTimestampKey_ = nullptr;
  const char* maxTimestampKey_ = nullptr;
};

}  // namespace quorveld
