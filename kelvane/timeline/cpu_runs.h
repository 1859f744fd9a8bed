#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kelvane/recording/recording.h"

namespace kelvane {

/// A stretch of time that a CPU gave to one thread.
struct CpuRun {
  uint64_t fromNs = 0;
  uint64_t toNs = 0;
  uint16_t cpu = 0;
  int32_t tid = 0;  // 0: the idle task
};

/// Calls `visit` with every run within the recording's covered time, each CPU's in ascending order. A CPU
/// without a switch has none: whom it ran is not known. No run is empty.
template <typename Visit>
void visitCpuRuns(const Recording& recording, Visit visit) {
  struct Cpu {
    uint64_t sinceNs;
    int32_t tid = -1;
  };
  uint64_t coveredFromNs = std::clamp(recording.coveredFromNs, recording.fromNs, recording.toNs);
  std::vector<Cpu> cpus;
  for (const RecordedEvent& event : recording.events) {
    if (event.kind != RecordedKind::contextSwitch || event.atNs < coveredFromNs) continue;
    if (event.cpu >= cpus.size()) cpus.resize(size_t{event.cpu} + 1, {coveredFromNs});
    Cpu& cpu = cpus[event.cpu];
    // Where events were lost, someone else leaves than came: the run before ends nobody knows when. The
    // coverage can begin with the very switch that ends a run.
    const bool isKnown = cpu.tid == -1 || cpu.tid == event.tid;
    if (isKnown && event.atNs > cpu.sinceNs) visit(CpuRun{cpu.sinceNs, event.atNs, event.cpu, event.tid});
    cpu = {event.atNs, event.other};
  }
  for (size_t i = 0; i < cpus.size(); i++) {
    const Cpu& cpu = cpus[i];
    if (cpu.tid == -1 || cpu.sinceNs >= recording.toNs) continue;
    visit(CpuRun{cpu.sinceNs, recording.toNs, static_cast<uint16_t>(i), cpu.tid});
  }
}

}  // namespace kelvane
