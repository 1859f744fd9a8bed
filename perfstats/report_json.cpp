#include <charconv>
#include <concepts>
#include <string>

#include "base/log.h"
#include "perfstats/activation_report.h"
#include "perfstats/report_values.h"

namespace quorveld {

namespace {

// A thousand processes need some 430,000 characters: one allocation serves nearly every report.
constexpr size_t kInitialCapacity = 1'048'576;

void append(std::string& text, std::integral auto number) {
  char digits[24];
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

void append(std::string& text, const char* key, std::integral auto number) {
  text += "\n\t\"";
  text += key;
  text += "\":";
  append(text, number);
}

void appendTask(std::string& text, const task_statistics& task) {
  text += "\n{\n\t \"pid\":";
  append(text, task.pid);
  text += ",\n\t\"name\":\"";
  text += task.name;
  text += "\",";
  const UsageValues values = usageValues(task);
  for (size_t i = 0; i < values.size(); ++i) {
    append(text, kUsageColumns[i].json, values[i]);
    text += ",                 ";  // 17 blanks
  }
  append(text, "alive", task.state);
  text += "\n}";
}

void appendCpuSection(std::string& text, const ActivationReport& report) {
  text += "\"cpu_statistics\":\n[\t";
  if (const CpuStatisticsPtr delta = cpuDelta(report)) {
    for (int32_t n = 0; n < delta->count; ++n) {
      if (n > 0) text += ',';
      appendTask(text, delta->tasks[n]);
    }
  }
  text += "]\n";
}

void appendVmFields(std::string& text, const Vm& vm) {
  for (const VmColumn& column : kVmColumns) {
    if (&column != kVmColumns.begin()) text += ',';
    text += "     ";
    const uint64_t value = column.value(vm);
    if (column.is64Bit) {
      append(text, column.json, value);
    } else {
      append(text, column.json, static_cast<int32_t>(value));  // signed there, as readers know it
    }
  }
}

void appendVmSection(std::string& text, const VmEnds& vm) {
  text += "\n\"memory_statistics\":\n[\t{";
  appendVmFields(text, *vm.start);
  text += "},\n{";
  appendVmFields(text, *vm.end);
  text += "}\n]";
}

}  // namespace

void logAppActivationDataAsJSON(const ActivationReport& report) {
  std::string text;
  text.reserve(kInitialCapacity);
  text += "QVActivationStats: Output \n{\n";
  if (report.snapshotTypesToRecord & kSnapshotCpu) appendCpuSection(text, report);
  text += ',';  // part of the format even where it separates nothing
  const VmEnds vm = vmEnds(report);
  if ((report.snapshotTypesToRecord & kSnapshotVm) && vm.start) appendVmSection(text, vm);
  text += "}\n";

  // Past the formatting, which would copy the text.
  platform::LogHandle& log = quorvelLog().handle();
  if (log.enabled(platform::LogLevel::info)) log.write(platform::LogLevel::info, text);
}

}  // namespace quorveld
