#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/memory/memory_report.h"

namespace quorvelctl {

/// What all entries of one name held together, in two reports.
struct MemoryChange {
  std::string name;
  int64_t oldBytes = 0;
  int64_t newBytes = 0;
  size_t oldCount = 0;  ///< entries of this name; 0: it came
  size_t newCount = 0;  ///< 0: it went

  int64_t bytes() const { return newBytes - oldBytes; }
  bool operator==(const MemoryChange&) const = default;
};

/// A VM counter in two reports: pages or events, as countsPages says.
struct CounterChange {
  std::string name;
  uint64_t oldValue = 0;
  uint64_t newValue = 0;

  int64_t change() const { return static_cast<int64_t>(newValue - oldValue); }
};

/// What differs between two reports: only that, largest change first.
///
/// A report names processes and numbers none, so those of one name are taken together.
struct MemoryDiff {
  std::vector<MemoryChange> account;  ///< of MemoryAccount, what it leaves unaccounted for included
  std::vector<MemoryChange> processes;
  std::vector<MemoryChange> zones;
  std::vector<MemoryChange> uses;
  std::vector<MemoryChange> consumers;
  std::vector<MemoryChange> totals;
  std::vector<CounterChange> counters;  ///< in the order of a report
};

MemoryDiff diffOf(const MemoryReport& older, const MemoryReport& newer);

}  // namespace quorvelctl
