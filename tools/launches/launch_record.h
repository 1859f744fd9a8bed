#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/context.h"
#include "tools/base/descriptor.h"

namespace quorvelctl {

/// Why the daemon records no activations, as far as its preferences tell; empty: it does.
std::string whyNoneIsRecorded(const Context& context);

/// Reads the whole lines that are appended to a file from its owner's beginning on, each once. A file that
/// takes its place is read from its beginning on, after the rest of the one before.
class AppendedLines {
 public:
  explicit AppendedLines(std::string path);

  std::vector<std::string> next();

 private:
  void open();
  void addTo(std::vector<std::string>& lines);

  std::string path_;
  Descriptor file_;
  off_t offset_ = 0;  ///< of the first line that was not read, bytes
};

/// Waits for the daemon's word on one activation: its record, or that there will be none.
class LaunchRecord {
 public:
  enum class Outcome {
    recorded,
    leftOut,     ///< `reason` says why
    noneIsMade,  ///< as far as the preferences tell
    noWord,
  };

  /// Looks at what the daemon writes from now on. Keeps `context`.
  explicit LaunchRecord(const Context& context);

  /// No longer than the connection to the daemon lasts. For the activation of `pid` that began at `startMs`
  /// and ended at `endMs`, by which the daemon knows it when it did not hear of the begin.
  Outcome await(int32_t pid, uint64_t startMs, uint64_t endMs, std::chrono::milliseconds limit);

  const std::string& reason() const { return reason_; }

 private:
  Outcome look(int32_t pid, uint64_t startMs, uint64_t endMs);

  const Context& context_;
  AppendedLines records_;
  AppendedLines leftOut_;
  std::string reason_;
};

}  // namespace quorvelctl
