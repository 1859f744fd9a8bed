#pragma once

#include "kelvane/recording/recording.h"

namespace kelvane {

/// Puts in the switches away from idle tasks that the kernel did not record, which no count of lost events
/// tells: seen with Linux 6.18 in a virtual machine, on one CPU of two, for minutes. A thread that shows up
/// on a CPU which was idle has been there since the CPU's last event, or since its own last event if that is
/// later: it may have come from another CPU. Does nothing where events were lost, since these may be the
/// ones.
///
/// The same kernel keeps back the switches away from some other threads. When those left the CPU nobody
/// knows: that time stays unknown.
void addMissingSwitches(Recording& recording);

/// The same for a thread that has a CPU at the recording's end: no later event shows it there. Does nothing
/// if its own events don't leave it ready to run, or no CPU was idle in the end that it can have come to.
void addMissingArrival(Recording& recording, int32_t tid);

}  // namespace kelvane
