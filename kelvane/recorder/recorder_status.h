#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/base/deadline.h"
#include "kelvane/base/omission.h"

namespace kelvane {

/// One CPU's `stats` below tracefs; counts since recording began.
struct BufferStats {
  uint64_t entries = 0;  // in the buffer now
  uint64_t bytes = 0;
  uint64_t lost = 0;  // could not be written: not those that newer ones took the place of
};
/// Pure: a line that isn't there counts 0.
BufferStats parseBufferStats(std::string_view text);

/// What a report made now would find of the past.
struct RecorderStatus {
  bool running = false;
  bool known = true;     // false: whether it is running could not be told, and `leftOut` says why
  std::string instance;  // its path
  size_t cpus = 0;
  size_t bufferKb = 0;  // of each CPU
  uint64_t runningForNs = 0;
  uint64_t coveredNs = 0;
  uint64_t keptBytes = 0;      // read out of the buffer before, and kept
  double eventsPerSecond = 0;  // over what is covered
  double bytesPerEvent = 0;    // 0: not known
  uint64_t lostEvents = 0;
  std::vector<Omission> leftOut;

  /// How far back the buffers reach at this rate; 0: not known.
  double bufferHoldsSeconds() const;
  /// Of all CPUs' time, by what an event costs (docs/flight-recorder.md).
  double overheadPercent() const;
};

/// Reads all that the recorder has, as a report does. What keeps it from that is in `leftOut`.
RecorderStatus readRecorderStatus(const Deadline& deadline);

std::string statusText(const RecorderStatus& status);
std::string statusJson(const RecorderStatus& status);

}  // namespace kelvane
