#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

/// The processes of one look, kept as what differs from a base look that others share. Most processes sleep
/// from one look to the next, so that this is a few hundredths of the look.
class PackedStatistics {
 public:
  /// The look as it was, in ascending order of pid; null without memory.
  [[nodiscard]] CpuStatisticsPtr unpacked() const;

  /// What is kept for this look: its differences, and the base where it was made of this one.
  size_t bytes() const { return bytes_; }

 private:
  friend class SharedLooks;
  using Tasks = std::vector<task_statistics>;

  std::shared_ptr<const Tasks> base_;
  Tasks changed_;              ///< as they are now; those that came are among them
  std::vector<int32_t> gone_;  ///< pids of the base
  size_t bytes_ = 0;
};

/// Packs looks that overlap in time.
///
/// The base is the latest look that differed too much from the one before, and lives as long as a look that
/// was packed with it. One queue at a time; what was packed may go to another.
class SharedLooks {
 public:
  /// Sorts `look` by pid.
  [[nodiscard]] PackedStatistics pack(cpu_statistics& look);

  /// Lets the base go: no look is kept that the next one could have something in common with.
  void forget() { base_.reset(); }

 private:
  std::shared_ptr<const PackedStatistics::Tasks> base_;
};

}  // namespace quorveld
