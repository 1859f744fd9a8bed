#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelvane {

/// One event in a page: its bytes, from the event's number on, and its time.
struct TraceEvent {
  uint64_t atNs = 0;
  std::span<const uint8_t> bytes;
};

/// The events of one page of the kernel's ring buffer, as trace_pipe_raw gives it out; oldest first.
///
/// Pages are kept in files, so every length in one is taken for a claim: a broken page ends early.
///
///   u64 time | word: length, flags | events: length bytes | word: events lost before, if the flag says so
///   event: u32 kind in 5 bits, time since the one before in 27 | by kind: length or time | bytes
class TracePage {
 public:
  /// `page` must outlive it. A page that can't be one has no events, and isBroken().
  explicit TracePage(std::span<const uint8_t> page);

  /// The time of the page's first event.
  uint64_t firstNs() const { return firstNs_; }
  /// Events that the kernel overwrote between the page before and this one; 1 if it knows only that there
  /// were.
  uint64_t missedBefore() const { return missed_; }
  std::optional<TraceEvent> next();
  /// Whether next() has met something that the kernel doesn't write. What it gave before is sound.
  bool isBroken() const { return broken_; }

 private:
  std::optional<TraceEvent> stop(bool broken);
  std::optional<std::span<const uint8_t>> take(size_t bytes);

  std::span<const uint8_t> rest_;
  uint64_t firstNs_ = 0;
  uint64_t atNs_ = 0;
  uint64_t missed_ = 0;
  bool broken_ = false;
};

}  // namespace kelvane
