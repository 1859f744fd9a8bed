#include "perfstats/report_values.h"

#include "perfstats/cpu_statistics_delta.h"
#include "perfstats/report_state.h"
#include "platform/clock.h"
#include "platform/platform.h"

namespace quorveld {

namespace {

double nsPerTick() {
  double& ratio = reportState().nsPerTick;
  if (ratio < 0) {
    const platform::Timebase timebase = platform::current().clock.timebase();
    ratio = static_cast<double>(timebase.numer) / timebase.denom;
  }
  return ratio;
}

}  // namespace

uint64_t ticksAsMs(uint64_t ticks) {
  return static_cast<uint64_t>(static_cast<double>(ticks) * nsPerTick() / 1'000'000.0);
}

UsageValues usageValues(const task_statistics& task) {
  UsageValues values;
  for (size_t i = 0; i < values.size(); ++i) {
    const uint64_t figure = task.rusage.*kUsageColumns[i].field;
    const bool isTime = kUsageColumns[i].unit == Unit::ms;
    values[i] = isTime ? ticksAsMs(figure) : figure;
  }
  return values;
}

CpuStatisticsPtr cpuDelta(const ActivationReport& report) {
  return delta_cpu_statistics(report.startSnapshot ? report.startSnapshot->cpu_stats() : nullptr,
                              report.endSnapshot ? report.endSnapshot->cpu_stats() : nullptr);
}

VmEnds vmEnds(const ActivationReport& report) {
  if (!report.startSnapshot || !report.endSnapshot) return {};
  const VmEnds ends{report.startSnapshot->vm_stats(), report.endSnapshot->vm_stats()};
  return ends.start && ends.end ? ends : VmEnds{};
}

}  // namespace quorveld
