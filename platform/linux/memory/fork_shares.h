#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/base/background_thread.h"

namespace quorveld::linux_platform {

/// What is known of a process before its share is read.
struct SharingProcess {
  int32_t pid;
  uint64_t program;         ///< as in process_sample
  uint64_t footprintPages;  ///< without huge pages, which no walk divides
  uint64_t residentPages;
};

/// The processes of families, that is of two or more that run one program: the family first that may count
/// the most pages more than once, and its largest member first. A family that can't explain a mistake isn't
/// in it.
std::vector<SharingProcess> membersOfFamilies(std::vector<SharingProcess> processes);

/// The process's share, in KiB, by the text of /proc/PID/smaps_rollup: anonymous and swapped pages divided by
/// how many have them. Nothing from a kernel that doesn't divide (before 5.3).
std::optional<uint64_t> parseShareKb(std::string_view rollup);

/// Reads what is each one's share of pages that forks hold together.
///
/// The kernel counts such a page in each of its holders, and the division costs a walk of page tables that
/// holds a lock of the process walked. So there is a budget, and it is spent only when processes claim more
/// than there is. A process may have its lock held for ever: the walks are done on a thread that is waited
/// for no longer than the budget, and left behind with what is stuck. One caller at a time.
class ForkShares {
 public:
  /// The shares in pages, by pid, of those that were read, when the footprints together exceed
  /// `availablePages` by more than chance; where a process is missing, its footprint is an upper bound.
  std::map<int32_t, uint64_t> read(std::vector<SharingProcess> processes, uint64_t availablePages);

 private:
  BackgroundThread thread_{"memory shares", 1, std::chrono::milliseconds(0)};
};

}  // namespace quorveld::linux_platform
