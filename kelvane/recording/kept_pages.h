#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kelvane/base/proc_files.h"

namespace kelvane {

/// The pages of one CPU that were read out of the kernel's buffer, in a file: reading takes them from the
/// kernel, and the next report wants the same past.
///
/// Page i stands at i × the page's size, the newest last. Old ones are cut off by a hole at the file's begin,
/// so nothing is ever moved. Guarded by RecorderFolder's lock.
class KeptPages {
 public:
  /// Opens or makes the file "cpuN" in `folder`. What isn't a whole page at its end is cut off.
  KeptPages(int folder, unsigned cpu, size_t pageBytes);

  bool isOpen() const { return static_cast<bool>(file_); }
  /// Pages first() to end() - 1 are there.
  size_t first() const { return first_; }
  size_t end() const { return end_; }

  /// Appends whole pages; false, with errno, when that fails.
  [[nodiscard]] bool append(std::span<const uint8_t> pages);
  [[nodiscard]] bool read(size_t index, std::span<uint8_t> page) const;

  /// Drops pages that ended before `beforeNs`, and the oldest beyond `maxPages`.
  void prune(uint64_t beforeNs, size_t maxPages);

 private:
  uint64_t timeOf(size_t index) const;
  void dropBefore(size_t index);

  UniqueFd file_;
  size_t pageBytes_;
  size_t first_ = 0;
  size_t end_ = 0;
};

}  // namespace kelvane
