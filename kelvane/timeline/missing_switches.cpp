#include "kelvane/timeline/missing_switches.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvane {

void addMissingSwitches(Recording& recording) {
  struct Cpu {
    std::optional<int32_t> tid;  // whom it runs, once that is known
    uint64_t lastEventNs = 0;
  };
  if (recording.lostEvents > 0) return;
  std::vector<Cpu> cpus;
  std::unordered_map<int32_t, uint64_t> seenNs;  // each thread's last event, on whatever CPU
  std::vector<RecordedEvent> missing;
  for (const RecordedEvent& event : recording.events) {
    if (event.cpu >= cpus.size()) cpus.resize(size_t{event.cpu} + 1);
    Cpu& cpu = cpus[event.cpu];
    if (cpu.tid == 0 && event.tid != 0) {
      uint64_t atNs = std::max(cpu.lastEventNs, seenNs[event.tid]);
      missing.push_back({atNs, RecordedKind::contextSwitch, 'R', event.cpu, 0, event.tid, 0, 0, 0});
    }
    cpu.tid = event.kind == RecordedKind::contextSwitch ? event.other : event.tid;
    cpu.lastEventNs = event.atNs;
    seenNs[event.tid] = event.atNs;
    if (event.kind == RecordedKind::wakeup || event.kind == RecordedKind::contextSwitch ||
        event.kind == RecordedKind::newTask)
      seenNs[event.other] = event.atNs;
  }
  auto earlier = [](const RecordedEvent& a, const RecordedEvent& b) { return a.atNs < b.atNs; };
  if (missing.empty()) return;
  std::sort(missing.begin(), missing.end(), earlier);
  std::vector<RecordedEvent> all(recording.events.size() + missing.size());
  // Of events at one time the recorded ones stay first: a wake-up comes before its switch.
  std::merge(recording.events.begin(), recording.events.end(), missing.begin(), missing.end(), all.begin(),
             earlier);
  recording.events = std::move(all);
}

void addMissingArrival(Recording& recording, int32_t tid) {
  enum class Last { nothing, running, asleep, ready };
  struct Cpu {
    int32_t tid = -1;
    uint64_t lastEventNs = 0;
  };
  if (recording.lostEvents > 0) return;
  std::vector<Cpu> cpus;
  Last last = Last::nothing;
  uint64_t seenNs = 0;
  size_t home = 0;
  for (const RecordedEvent& event : recording.events) {
    if (event.cpu >= cpus.size()) cpus.resize(size_t{event.cpu} + 1);
    const bool isSwitch = event.kind == RecordedKind::contextSwitch;
    cpus[event.cpu] = {isSwitch ? event.other : event.tid, event.atNs};
    const bool leaves = isSwitch && event.tid == tid;
    const bool comes = isSwitch && event.other == tid;
    const bool wakes = event.kind == RecordedKind::wakeup && event.other == tid && last != Last::running;
    if (!leaves && !comes && !wakes) continue;
    last = comes ? Last::running : wakes || event.state == 'R' ? Last::ready : Last::asleep;
    seenNs = event.atNs;
    if (isSwitch) home = event.cpu;
  }
  if (last != Last::ready) return;
  const auto isIdle = [](const Cpu& cpu) { return cpu.tid == 0; };
  if (!isIdle(cpus[home])) {
    if (std::count_if(cpus.begin(), cpus.end(), isIdle) != 1) return;
    home = static_cast<size_t>(std::find_if(cpus.begin(), cpus.end(), isIdle) - cpus.begin());
  }
  const uint64_t atNs = std::max(cpus[home].lastEventNs, seenNs);
  const auto next = std::upper_bound(recording.events.begin(), recording.events.end(), atNs,
                                     [](uint64_t ns, const RecordedEvent& event) { return ns < event.atNs; });
  recording.events.insert(
      next, {atNs, RecordedKind::contextSwitch, 'R', static_cast<uint16_t>(home), 0, tid, 0, 0, 0});
}

}  // namespace kelvane
