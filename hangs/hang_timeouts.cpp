#include <algorithm>
#include <atomic>
#include <cstring>

#include "abi/hang_region.h"
#include "base/log.h"
#include "base/text.h"
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
  for (const auto& process : classSide().watchedProcesses) process->checkEventsForTimeouts(nowTicks);
}

void QVProcessInfo::checkEventsForTimeouts(uint64_t nowTicks) {
  const double timeoutMs = classSide().hangTimeoutDuration;
  const double tickMs = msPerTick();
  const auto now = static_cast<double>(nowTicks);

  auto* base = static_cast<std::byte*>(region_->address());
  auto& header = *reinterpret_cast<QVSharedHangRegion*>(base);
  auto* slots = reinterpret_cast<hangEvent*>(base + offsetof(QVSharedHangRegion, slots));
  const size_t slotsInRegion =
      (region_->lengthBytes() - offsetof(QVSharedHangRegion, slots)) / sizeof(hangEvent);

  // slotCount is read again at every step: the client may grow or shrink its list meanwhile, and may lie.
  for (size_t i = 0; i < std::min<size_t>(loadRelaxed(header.slotCount), slotsInRegion); ++i) {
    hangEvent& slot = slots[i];
    // Sequentially consistent: no other field of the slot is read before it.
    if (std::atomic_ref(slot.timeoutExempt).load(std::memory_order_seq_cst) != 0) continue;
    const uint64_t startTicks = loadRelaxed(slot.startTime);
    if (!((now - static_cast<double>(startTicks)) * tickMs > timeoutMs)) continue;

    TimedOutSlot taken;
    if (!takeTimedOutSlot(slot, startTicks, taken)) continue;
    quorvelLog().info("Hang timeout duration of %f exceeded, will attempt to record hang ", timeoutMs);
    recordHang(taken.hangName.c_str(), taken.threadID, taken.startTicks, nowTicks, taken.wantsKelvane);
    return;
  }
}

/// Copies the slot and marks it as reported: seen as a number, all ones lies far in the future, so the slot
/// is left alone until the client writes a new start. The mark is set only over the start that was judged. A
/// client that began another operation there meanwhile wrote its start first, so then this returns false and
/// what was copied is thrown away.
bool QVProcessInfo::takeTimedOutSlot(hangEvent& slot, uint64_t startTicks, TimedOutSlot& taken) {
  char name[QV_HANG_NAME_BYTES];
  for (size_t i = 0; i < sizeof(name); ++i) name[i] = loadRelaxed(slot.hangName[i]);
  taken.startTicks = startTicks;
  taken.threadID = loadRelaxed(slot.threadID);
  taken.wantsKelvane = loadRelaxed(slot.wantsKelvane) != 0;
  taken.hangName = std::string(name, strnlen(name, sizeof(name)));

  uint64_t expected = startTicks;
  return std::atomic_ref(slot.startTime).compare_exchange_strong(expected, QV_HANG_REPORTED);
}

}  // namespace quorveld
