#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kelvane/base/omission.h"

namespace kelvane {

inline constexpr size_t kDefaultBufferKb = 4'096;  // of each CPU
inline constexpr size_t kMinBufferKb = 64;
inline constexpr size_t kMaxBufferKb = size_t{1024} * 1024;

/// What became of a command to the recorder. All of them want root, and wait for a reader for some seconds.
struct ControlResult {
  std::string error;              // why it failed; empty: it didn't
  bool wasSo = false;             // it was running, or stopped, before
  size_t bufferKb = 0;            // of each CPU, if it was running: the kernel rounds up
  std::vector<Omission> leftOut;  // events that this kernel lacks
};

/// Makes the tracefs instance, mounting tracefs where it isn't, and records from then on. A failure leaves
/// nothing behind. A running recorder is left alone.
ControlResult startRecorder(size_t bufferKb);

/// Ends recording, and drops what was recorded.
ControlResult stopRecorder();

}  // namespace kelvane
