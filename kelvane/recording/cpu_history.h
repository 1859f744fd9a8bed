#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelvane/recording/event_decoder.h"
#include "kelvane/recording/page_drain.h"
#include "kelvane/recording/recording.h"

namespace kelvane {

/// What one CPU recorded: goes through its kept pages from the newest to the oldest, as far as nothing is
/// missing.
class CpuHistory {
 public:
  /// `startedNs`: when the recorder was started; UINT64_MAX if that isn't known.
  CpuHistory(const PageDrain::Cpu& cpu, size_t pageBytes, uint64_t startedNs, uint64_t toNs);

  /// Whether there is a page to take.
  bool has() const { return has_; }
  /// When the page begins that take() takes.
  uint64_t pageNs() const { return pageNs_; }
  /// From here on nothing is missing of this CPU, by what was taken.
  uint64_t coveredFromNs() const { return coveredFromNs_; }
  /// Events overwritten before the oldest page taken, if it is in the window.
  uint64_t lost() const { return lost_; }
  /// Ascending in time.
  std::vector<RecordedEvent> releaseEvents();

  /// Decodes the page; the number of its events within [fromNs, toNs].
  size_t take(EventDecoder& decoder, uint64_t fromNs, uint64_t toNs);

 private:
  void loadNext();

  const PageDrain::Cpu& cpu_;
  size_t next_;  // the page in bytes_, if has_
  bool has_ = false;
  uint64_t pageNs_ = 0;
  uint64_t startedNs_;
  uint64_t coveredFromNs_;
  uint64_t newerPageNs_ = UINT64_MAX;
  uint64_t lost_ = 0;
  std::vector<uint8_t> bytes_;
  std::vector<RecordedEvent> page_;
  std::vector<RecordedEvent> events_;  // newest first
};

}  // namespace kelvane
