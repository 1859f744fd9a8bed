#pragma once

#include <array>
#include <cstdint>

#include "perfstats/activation_report.h"

namespace quorveld {

// What the three reports have in common: which figures they show, under which names, in which unit.

enum class Unit : uint8_t { ms, bytes, pages };

/// One figure of a process.
///
/// "No-QOS" is the kernel's counter of the default class and "Default" its counter of the legacy class: that
/// is how the readers of the reports know them.
struct UsageColumn {
  const char* console;
  int consoleWidth;  ///< of the header
  const char* json;
  const char* powerLog;
  uint64_t platform::rusage_info_v3::*field;
  Unit unit;
};

using Usage = platform::rusage_info_v3;
inline constexpr std::array<UsageColumn, 11> kUsageColumns{{
    {"Total-CPU", 10, "total_cpu", "TotalCPU_ms", &Usage::user_time, Unit::ms},
    {"No-QOS", 10, "no-qos", "QOSDisabled_ms", &Usage::cpu_time_qos_default, Unit::ms},
    {"UInteractive", 15, "user-interactive", "QOSUserInteractive_ms", &Usage::cpu_time_qos_user_interactive,
     Unit::ms},
    {"UInitiated", 10, "user-initiated", "QOSUserInitiated_ms", &Usage::cpu_time_qos_user_initiated,
     Unit::ms},
    {"Default", 10, "default", "QOSDefault_ms", &Usage::cpu_time_qos_legacy, Unit::ms},
    {"Utility", 10, "utility", "QOSUtility_ms", &Usage::cpu_time_qos_utility, Unit::ms},
    {"Maintenance", 15, "maintenance", "QOSMaintenance_ms", &Usage::cpu_time_qos_maintenance, Unit::ms},
    {"Background", 10, "background", "QOSBackground_ms", &Usage::cpu_time_qos_background, Unit::ms},
    {"Bytes Read", 10, "bytes-read", "IOReads_kb", &Usage::diskio_bytesread, Unit::bytes},
    {"Bytes Written", 15, "bytes-written", "IOWrites_kb", &Usage::diskio_byteswritten, Unit::bytes},
    {"PageIns", 10, "pageins", "PageIns", &Usage::pageins, Unit::pages},
}};
/// Whole milliseconds of a CPU time. Log-output queue only.
uint64_t ticksAsMs(uint64_t ticks);

using UsageValues = std::array<uint64_t, kUsageColumns.size()>;

/// The figures in the columns' order: times in whole ms, I/O in bytes. Log-output queue only.
UsageValues usageValues(const task_statistics& task);

using Vm = platform::vm_statistics64;

/// One VM counter of the console's and the JSON text's tables.
struct VmColumn {
  const char* console;
  const char* json;
  bool is64Bit;
  uint64_t (*value)(const Vm& vm);
};

template <auto kField>
constexpr uint64_t vmField(const Vm& vm) {
  return vm.*kField;
}

constexpr uint64_t vmFreePages(const Vm& vm) {
  return vm.free_count - vm.speculative_count;  // in 32 bits
}

/// "inactive" shows the speculative pages and the speculative column the inactive ones: readers know the
/// tables that way round.
inline constexpr std::array<VmColumn, 22> kVmColumns{{
    {"free", "free", false, vmFreePages},
    {"active", "active", false, vmField<&Vm::active_count>},
    {"inactive", "inactive", false, vmField<&Vm::speculative_count>},
    {"spec", "speculative", false, vmField<&Vm::inactive_count>},
    {"throttled", "throttled", false, vmField<&Vm::throttled_count>},
    {"wired", "wired", false, vmField<&Vm::wire_count>},
    {"purgeable", "purgeable", false, vmField<&Vm::purgeable_count>},
    {"faults", "faults", true, vmField<&Vm::faults>},
    {"cow", "cow", true, vmField<&Vm::cow_faults>},
    {"zero-fill", "zero-fill", true, vmField<&Vm::zero_fill_count>},
    {"reactivate", "reactivated", true, vmField<&Vm::reactivations>},
    {"purged", "purged", true, vmField<&Vm::purges>},
    {"filebacked", "file-backed", false, vmField<&Vm::external_page_count>},
    {"anonymous", "anonymous", false, vmField<&Vm::internal_page_count>},
    {"compressed", "compressed", true, vmField<&Vm::total_uncompressed_pages_in_compressor>},
    {"comp-size", "compressor-size", false, vmField<&Vm::compressor_page_count>},
    {"decomp", "decompressions", true, vmField<&Vm::decompressions>},
    {"compress", "compressions", true, vmField<&Vm::compressions>},
    {"pageins", "pageins", true, vmField<&Vm::pageins>},
    {"pageouts", "pageouts", true, vmField<&Vm::pageouts>},
    {"swapins", "swapins", true, vmField<&Vm::swapins>},
    {"swapouts", "swapouts", true, vmField<&Vm::swapouts>},
}};

/// What every process spent during the activation; null, and a log line, when a snapshot lacks it.
CpuStatisticsPtr cpuDelta(const ActivationReport& report);

/// Both ends' VM counters; two nulls when either is missing.
struct VmEnds {
  const Vm* start = nullptr;
  const Vm* end = nullptr;
};
VmEnds vmEnds(const ActivationReport& report);

}  // namespace quorveld
