#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/user_shares.h"
#include "perfstats/perf_snapshot.h"

namespace quorveld {

/// The processes of one look, kept as what differs from a base look that others share. Most processes sleep
/// from one look to the next, so that this is a few hundredths of the look.
class PackedStatistics {
 public:
  /// The look as it was, in ascending order of pid; null without memory.
  [[nodiscard]] CpuStatisticsPtr unpacked() const;

 private:
  friend class SharedLooks;
  using Tasks = std::vector<task_statistics>;
  struct Base {
    std::shared_ptr<void> memory;
    Tasks tasks;
  };

  std::shared_ptr<const Base> base_;
  Tasks changed_;              ///< as they are now; those that came are among them
  std::vector<int32_t> gone_;  ///< pids of the base
  std::shared_ptr<void> memory_;
};

/// Packs looks that overlap in time.
///
/// The base is the latest look that differed too much from the one before, and lives as long as a look that
/// was packed with it: so long its memory is charged to the user whose look it was, whoever shares it. One
/// queue at a time; what was packed may go to another.
class SharedLooks {
 public:
  /// What is kept takes its bytes from `memory`, which outlives it.
  explicit SharedLooks(UserShares& memory) : memory_(memory) {}

  /// Sorts `look` by pid. Null when `forUid` has not so much memory left.
  [[nodiscard]] std::unique_ptr<PackedStatistics> pack(cpu_statistics& look, uint32_t forUid);

  /// Lets the base go: no look is kept that the next one could have something in common with.
  void forget() { base_.reset(); }

 private:
  UserShares& memory_;
  std::shared_ptr<const PackedStatistics::Base> base_;
};

}  // namespace quorveld
