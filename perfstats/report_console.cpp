#include <cstdio>
#include <string>

#include "base/log.h"
#include "perfstats/activation_report.h"
#include "perfstats/report_values.h"

namespace quorveld {

namespace {

void logTaskHeader() {
  const auto& c = kUsageColumns;
  systemLog("%*s %*s vm_stat%*s(ms) %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s\n", 7, "PID", 32, "Name",
            c[0].consoleWidth, c[0].console, c[1].consoleWidth, c[1].console, c[2].consoleWidth, c[2].console,
            c[3].consoleWidth, c[3].console, c[4].consoleWidth, c[4].console, c[5].consoleWidth, c[5].console,
            c[6].consoleWidth, c[6].console, c[7].consoleWidth, c[7].console, c[8].consoleWidth, c[8].console,
            c[9].consoleWidth, c[9].console, c[10].consoleWidth, c[10].console);
}

const char* stateWord(uint8_t state) {
  switch (state) {
    case kTaskNew:
      return "NEW";
    case kTaskDead:
      return "DEAD";
    default:
      return "";
  }
}

void logTask(const task_statistics& task) {
  const UsageValues values = usageValues(task);
  const auto value = [&values](size_t column) { return static_cast<unsigned long long>(values[column]); };
  systemLog("%7d %32s %13llu %10llu %15llu %10llu %10llu %10llu %15llu %10llu %10llu %15llu %10llu %s \n",
            task.pid, task.name, value(0), value(1), value(2), value(3), value(4), value(5), value(6),
            value(7), value(8), value(9), value(10), stateWord(task.state));
}

void appendVmTable(std::string& text, const char* title, const Vm& vm) {
  text += title;
  text += '\n';
  char cell[32];
  for (const VmColumn& column : kVmColumns) {
    std::snprintf(cell, sizeof cell, "%*s", 10, column.console);
    text += cell;
  }
  text += '\n';
  for (const VmColumn& column : kVmColumns) {
    if (&column != kVmColumns.begin()) text += ' ';
    std::snprintf(cell, sizeof cell, "%10llu", static_cast<unsigned long long>(column.value(vm)));
    text += cell;
  }
  text += '\n';
}

/// Counters of events only: page queues have no difference that means anything to the table's readers.
Vm vmDifference(const Vm& start, const Vm& end) {
  Vm difference{};
  difference.zero_fill_count = end.zero_fill_count - start.zero_fill_count;
  difference.reactivations = end.reactivations - start.reactivations;
  difference.pageins = end.pageins - start.pageins;
  difference.pageouts = end.pageouts - start.pageouts;
  difference.faults = end.faults - start.faults;
  difference.cow_faults = end.cow_faults - start.cow_faults;
  difference.purges = static_cast<uint32_t>(end.purges - start.purges);  // in 32 bits, as readers know it
  difference.decompressions = end.decompressions - start.decompressions;
  difference.compressions = end.compressions - start.compressions;
  difference.swapins = end.swapins - start.swapins;
  difference.swapouts = end.swapouts - start.swapouts;
  return difference;
}

}  // namespace

void logAppActivationDataToConsole(const ActivationReport& report) {
  if (report.snapshotTypesToRecord & kSnapshotCpu) {
    if (const CpuStatisticsPtr delta = cpuDelta(report)) {
      systemLog("Found %d processes\n", delta->count);
      logTaskHeader();
      for (int32_t n = 0; n < delta->count; ++n) logTask(delta->tasks[n]);
    }
  }
  const VmEnds vm = vmEnds(report);
  if ((report.snapshotTypesToRecord & kSnapshotVm) && vm.start) {
    std::string text;
    appendVmTable(text, "\nStart VM Statistics (pages)", *vm.start);
    appendVmTable(text, "\nEnd VM Statistics (pages)", *vm.end);
    appendVmTable(text, "\nDelta VM Statistics (pages)", vmDifference(*vm.start, *vm.end));
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
  }
}

}  // namespace quorveld
