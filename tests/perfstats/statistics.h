#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "perfstats/perf_snapshot.h"

namespace quorveld {

inline task_statistics task(int32_t pid, const std::string& name, uint64_t userTicks = 0) {
  task_statistics entry{};
  entry.pid = pid;
  std::strncpy(entry.name, name.c_str(), sizeof entry.name - 1);
  entry.rusage.user_time = userTicks;
  return entry;
}

inline CpuStatisticsPtr statistics(const std::vector<task_statistics>& tasks) {
  CpuStatisticsPtr record(static_cast<cpu_statistics*>(std::calloc(1, sizeof(cpu_statistics))));
  record->count = static_cast<int32_t>(tasks.size());
  record->tasks = static_cast<task_statistics*>(std::calloc(tasks.size() + 1, sizeof(task_statistics)));
  std::copy(tasks.begin(), tasks.end(), record->tasks);
  return record;
}

inline std::vector<int32_t> pids(const cpu_statistics& record) {
  std::vector<int32_t> listed;
  listed.reserve(static_cast<size_t>(record.count));
  for (int32_t i = 0; i < record.count; ++i) listed.push_back(record.tasks[i].pid);
  return listed;
}

}  // namespace quorveld
