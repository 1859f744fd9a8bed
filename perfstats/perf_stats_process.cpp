#include "perfstats/perf_stats_process.h"

#include <utility>

#include "base/string_hash.h"
#include "base/text.h"

namespace quorveld {

PerfStatsProcess::PerfStatsProcess(int32_t pid, std::string name)
    : pid_(pid),
      processName_(std::move(name)),
      uniqueIdentifier_(generateUniqueIDForPID(pid, processName_)) {}

PerfStatsProcess PerfStatsProcess::processWithPID(int32_t pid, const char* name) {
  return PerfStatsProcess(pid, fromAscii(name));
}

uint64_t PerfStatsProcess::generateUniqueIDForPID(int32_t pid, std::string_view processName) {
  const auto signExtendedPid = static_cast<uint64_t>(int64_t{pid});
  return uint64_t{stringHash(processName)} << 32 | signExtendedPid;
}

}  // namespace quorveld
