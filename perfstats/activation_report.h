#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

/// What a report says of a completed activation. Refers to its record: lives as long as the call that it is
/// made for. Texts are UTF-8 or are cleaned where a report needs them to be.
struct ActivationReport {
  uint8_t snapshotTypesToRecord = 0;  ///< kSnapshot… bits: which sections the report has
  PerfSnapshot* startSnapshot = nullptr;
  PerfSnapshot* endSnapshot = nullptr;
  int32_t pid = 0;
  std::optional<std::string_view> processName;  ///< nothing: named by `bundleID`
  std::string_view bundleID;
  uint64_t appActivationID = 0;
  uint64_t startTimestamp = 0;  ///< ms since 2001-01-01 00:00:00 UTC
  int64_t systemUptime = 0;     ///< s
  uint32_t wallTime = 0;        ///< ms
  uint8_t appActivationResult = 0;
  uint8_t appActivationType = 0;
  uint64_t& appActivationFlags;
};

// All three: log-output queue only. They sort the snapshots' processes by pid, and a section whose figures
// are missing in either snapshot stays empty; nothing fails upwards.

/// A table of processes through the system log call, and three tables of VM counters on standard output.
void logAppActivationDataToConsole(const ActivationReport& report);

/// One text at info level, in the form that its readers expect, which is not quite JSON: process names stand
/// in it unescaped, and a comma follows the first section's place even when a section is missing.
void logAppActivationDataAsJSON(const ActivationReport& report);

/// Four dictionaries, logged at debug level and handed to the power-logging service. Small processes are
/// added up into one, and their number goes into the report's flags; a name is sent once for each new pid.
void logAppActivationDataToPelmar(const ActivationReport& report);

}  // namespace quorveld
