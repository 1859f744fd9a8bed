#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "kelvane/recording/recording.h"
#include "kelvane/timeline/disk_requests.h"
#include "kelvane/timeline/thread_timeline.h"

namespace kelvane {

/// Whether the kernel's threads of that name bring requests of disks on their way, or back.
bool isDiskHelper(std::string_view name);

/// What is known of the place that a thread still waited in at the recording's end.
enum class WaitPlace : uint8_t {
  unknown,
  disk,       // threads wait there for disks
  elsewhere,  // they don't
};

/// The part of a thread's uninterruptible sleep that was for block devices.
struct DiskWaits {
  uint64_t waitedNs = 0;   // which requests account for
  uint64_t slowestNs = 0;  // of those requests
  /// Also ended by a request of its own, or still in a place where threads wait for disks, but the device had
  /// no such request for most of the time: something held it back.
  uint64_t heldBackNs = 0;
  /// In those waits, threads of one name asked for most of what others are known to have asked of the device,
  /// and for much of all: the busiest of these, and how many they are. The kernel's own threads don't count:
  /// they work for others. Nothing if most was the thread's own.
  std::optional<int32_t> busiestOther;
  size_t othersOfItsName = 0;
};

/// Which of the thread's sleeps in [fromNs, toNs] were for a disk. That other requests are under way
/// meanwhile says nothing, so such a sleep
/// - ends as a request comes back, to its thread or to one of the kernel that wakes the sleeper at once; or
///   has not ended, in a place where threads wait for disks, or with a request of the thread's own;
/// - and has these requests under way for half of its time, or the device busy throughout: the request may
///   have stood in a queue. In the end a control group's limit looks like that too, on a device that is busy.
/// `timelines`, if there are any, are the recording's, which are made for it otherwise.
DiskWaits diskWaits(const Recording& recording, std::span<const DiskRequest> requests, int32_t tid,
                    std::span<const StateSpan> spans, WaitPlace lastPlace, uint64_t fromNs, uint64_t toNs,
                    const ThreadTimelines* timelines = nullptr);

}  // namespace kelvane
