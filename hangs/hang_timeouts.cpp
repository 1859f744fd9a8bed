#include <algorithm>
#include <atomic>
#include <cstring>

#include "abi/hang_region.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/ticks.h"
#include "hangs/class_side.h"
#include "hangs/qv_process_info.h"

namespace quorveld {

namespace {

/// A field of memory that the client writes at the same time.
template <typename T>
T loadRelaxed(T& field) {
  return std::atomic_ref(field).load(std::memory_order_relaxed);
}

/// The same; and whoever sees the value also sees what the client wrote before it.
template <typename T>
T loadAcquire(T& field) {
  return std::atomic_ref(field).load(std::memory_order_acquire);
}

/// Judged in doubles: a start in the future, all ones among them, has a negative age.
bool isTimedOut(uint64_t startTicks, uint64_t nowTicks, double timeoutMs) {
  return (static_cast<double>(nowTicks) - static_cast<double>(startTicks)) * msPerTick() > timeoutMs;
}

/// A start from which on `isTimedOut` can't be true, so that a scan need not ask it of nearly every slot. It
/// lies a little later than the exact border, by more than doubles can round.
uint64_t surelyRecent(uint64_t nowTicks, double timeoutMs) {
  constexpr double kRoundingTicks = 8192;  // ticks near 2^64 are rounded to multiples of 2048
  const uint64_t spanTicks = truncateToUnsigned(timeoutMs / msPerTick() - kRoundingTicks);
  if (spanTicks == 0) return UINT64_MAX;
  return spanTicks >= nowTicks ? 0 : nowTicks - spanTicks;
}

}  // namespace

void QVProcessInfo::setHangTimeoutDuration(double ms) {
  double& duration = classSide().hangTimeoutDuration;
  quorvelLog().info("Hang Timeout Duration: %f -> %f", duration, ms);
  duration = ms;
}

void QVProcessInfo::setLongHangDurationThreshold(double ms) {
  double& threshold = classSide().longHangDurationThreshold;
  quorvelLog().info("Long Hang Duration Threshold: %f -> %f", threshold, ms);
  threshold = ms;
}

void QVProcessInfo::checkForHangTimeouts(uint64_t nowTicks) {
  // Nothing that a scan calls registers or removes a process, so the list stands still.
  ClassSide& state = classSide();
  const auto& processes = state.watchedProcesses;
  const double duration = state.hangTimeoutDuration;
  constexpr double sampledFromMs = kSampledFrom.count();
  const TimeoutCheck check = {nowTicks, duration, surelyRecent(nowTicks, std::min(duration, sampledFromMs))};
  state.pending.clear();
  for (size_t i = 0; i < processes.size(); ++i) {
    const size_t next = i + 1 < processes.size() ? i + 1 : i;
    processes[i]->checkEventsForTimeouts(check, *processes[next]->shared_);
  }
  orderSampling();
}

/// At most one hang is recorded; the next one's turn comes with the next scan. Of what is pending, but has
/// not timed out or must wait for its turn, the longest is sampled.
///
/// Regions go cold in the 5 seconds between scans, and a scan mostly waits for memory: each step asks in
/// advance for the same slot of the region that is scanned `next`.
void QVProcessInfo::checkEventsForTimeouts(const TimeoutCheck& check, const QVSharedHangRegion& next) {
  hangEvent* slots = shared_->slots;
  const hangEvent* nextSlots = next.slots;
  const size_t slotsInRegion = slotsInRegion_;
  const uint64_t recentTicks = check.recentTicks;
  bool mayReport = true;
  kelvane_pending longest = {.pid = pid_, .uid = uid_, .thread_id = 0, .start_ticks = UINT64_MAX};
  // slotCount is read again at every step: the client may grow or shrink its list meanwhile, and may lie.
  for (size_t i = 0; i < loadRelaxed(shared_->slotCount) && i < slotsInRegion; ++i) {
    __builtin_prefetch(nextSlots + i);
    hangEvent& slot = slots[i];
    // Sequentially consistent: no other field of the slot is read before it.
    if (std::atomic_ref(slot.timeoutExempt).load(std::memory_order_seq_cst) != 0) continue;
    const uint64_t startTicks = loadRelaxed(slot.startTime);
    if (startTicks >= recentTicks) continue;
    if (!mayReport || !isTimedOut(startTicks, check.nowTicks, check.timeoutMs)) {
      if (startTicks < longest.start_ticks && loadRelaxed(slot.wantsKelvane) != 0) {
        longest.thread_id = loadRelaxed(slot.threadID);
        longest.start_ticks = startTicks;
      }
      continue;
    }

    TimedOutSlot taken;
    if (!takeTimedOutSlot(slot, startTicks, taken)) continue;
    quorvelLog().info("Hang timeout duration of %f exceeded, will attempt to record hang ", check.timeoutMs);
    recordHang(taken.hangName.c_str(), taken.threadID, taken.startTicks, check.nowTicks, taken.wantsKelvane);
    mayReport = false;
  }
  if (longest.start_ticks != UINT64_MAX && settings().enableKelvane) classSide().pending.push_back(longest);
}

/// Copies the slot and marks it as reported: seen as a number, all ones lies far in the future, so the slot
/// is left alone until the client writes a new start. The mark is set only over the start that was judged. A
/// client that began another operation there meanwhile wrote its start first, so then this returns false and
/// what was copied is thrown away.
bool QVProcessInfo::takeTimedOutSlot(hangEvent& slot, uint64_t startTicks, TimedOutSlot& taken) {
  char name[QV_HANG_NAME_BYTES];
  for (size_t i = 0; i < sizeof(name); ++i) name[i] = loadAcquire(slot.hangName[i]);
  taken.startTicks = startTicks;
  taken.threadID = loadAcquire(slot.threadID);
  taken.wantsKelvane = loadAcquire(slot.wantsKelvane) != 0;
  taken.hangName = std::string(name, strnlen(name, sizeof(name)));

  uint64_t expected = startTicks;
  return std::atomic_ref(slot.startTime).compare_exchange_strong(expected, QV_HANG_REPORTED);
}

}  // namespace quorveld
