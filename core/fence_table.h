#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace quorveld {

/// The last five fences: named intervals that clients mark. A hang that overlaps them long enough counts as a
/// fence hang.
///
/// A ring: the sixth fence overwrites the first without notice. Slots never written are all zero and overlap
/// nothing. Work queue only.
class FenceTable {
 public:
  /// Times are ticks as clients send them; `name` is whatever the client chose.
  void begin(int64_t name, int64_t startTicks);

  /// Ends the fence begun last if it has this name, else the one in the highest slot that has; false when
  /// none has.
  [[nodiscard]] bool end(int64_t name, int64_t endTicks);

  /// By how many ms [startTicks, endTicks] overlaps the fences, summed, each truncated to whole ms as it is
  /// added.
  uint64_t overlapMs(uint64_t startTicks, uint64_t endTicks) const;

 private:
  struct Fence {
    int64_t name = 0;
    int64_t startTicks = 0;
    int64_t endTicks = 0;
  };

  std::array<Fence, 5> fences_{};
  size_t nextIndex_ = 0;
  size_t lastIndex_ = 0;  ///< the slot written by the last begin
};

}  // namespace quorveld
