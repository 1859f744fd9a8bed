#include "perfstats/cpu_statistics_delta.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "base/log.h"
#include "perfstats/task_order.h"

namespace quorveld {

namespace {

using Rusage = platform::rusage_info_v3;

// As packs, so that every field is a fixed offset in straight code.
template <auto... kFields>
bool noneFell(const Rusage& start, const Rusage& end) {
  return ((end.*kFields >= start.*kFields) && ...);
}

template <auto... kFields>
void subtract(const Rusage& start, const Rusage& end, Rusage& difference) {
  ((difference.*kFields = end.*kFields - start.*kFields), ...);
}

std::span<task_statistics> entries(const cpu_statistics& statistics) {
  return {statistics.tasks, static_cast<size_t>(std::max(statistics.count, 0))};
}

/// The launch proxy hands its pid on to the application, which must not appear under the proxy's name.
bool isLaunchProxy(const char* name) {
  return std::strstr(name, "spawnhop") != nullptr;
}

void writeNew(const task_statistics& end, task_statistics& output) {
  output = end;
  output.state = kTaskNew;
}

void writeDead(const task_statistics& start, task_statistics& output) {
  output.pid = start.pid;
  std::memcpy(output.name, start.name, sizeof output.name);
  output.state = kTaskDead;
}

void writePresent(const task_statistics& start, const task_statistics& end, task_statistics& output) {
  const bool takeStartName = end.name[0] == '\0' && !isLaunchProxy(start.name);
  if (takeStartName) {
    quorvelLog().info(
        "QVActivationStats: Got a valid process name for pid:%d in start snapshot %s. Using that\n",
        start.pid, start.name);
  }
  output.pid = end.pid;
  std::memcpy(output.name, takeStartName ? start.name : end.name, sizeof output.name);
  output.state = kTaskPresent;
  delta_task_rusage(start.rusage, end.rusage, &output.rusage, end.pid);
}

/// False when both readings tell when their process began, and differ: the pid is another's by now.
bool beganTogether(const Rusage& start, const Rusage& end) {
  const uint64_t before = start.proc_start_abstime, now = end.proc_start_abstime;
  return before == 0 || now == 0 || before == now;
}

/// Merges two arrays sorted by pid into zeroed entries, by pid; how many it wrote.
size_t merge(std::span<const task_statistics> start, std::span<const task_statistics> end,
             task_statistics* output) {
  size_t i = 0, j = 0, k = 0;
  while (i < start.size() || j < end.size()) {
    task_statistics& next = output[k++];
    const bool startUsedUp = i == start.size(), endUsedUp = j == end.size();
    if (startUsedUp || (!endUsedUp && end[j].pid < start[i].pid)) {
      writeNew(end[j++], next);
    } else if (endUsedUp || end[j].pid > start[i].pid) {
      writeDead(start[i++], next);
    } else {
      writePresent(start[i++], end[j++], next);
    }
  }
  return k;
}

}  // namespace

void delta_task_rusage(const Rusage& start, const Rusage& end, Rusage* difference, int32_t pid) {
  const bool sameProcess =
      beganTogether(start, end) &&
      noneFell<&Rusage::user_time, &Rusage::pageins, &Rusage::diskio_bytesread, &Rusage::diskio_byteswritten,
               &Rusage::cpu_time_qos_default, &Rusage::cpu_time_qos_background, &Rusage::cpu_time_qos_utility,
               &Rusage::cpu_time_qos_legacy, &Rusage::cpu_time_qos_user_initiated,
               &Rusage::cpu_time_qos_user_interactive, &Rusage::cpu_time_qos_maintenance>(start, end);
  if (!sameProcess) {
    quorvelLog().standard(
        " ******* QVActivationStats: Start values are greater than end values "
        "for Pid:%d StartUserTime:%llu EndUserTime:%llu *******",
        pid, static_cast<unsigned long long>(start.user_time),
        static_cast<unsigned long long>(end.user_time));
    *difference = end;
    return;
  }
  subtract<&Rusage::user_time, &Rusage::system_time, &Rusage::pageins, &Rusage::wired_size,
           &Rusage::resident_size, &Rusage::phys_footprint, &Rusage::diskio_bytesread,
           &Rusage::diskio_byteswritten, &Rusage::cpu_time_qos_default, &Rusage::cpu_time_qos_maintenance,
           &Rusage::cpu_time_qos_background, &Rusage::cpu_time_qos_utility, &Rusage::cpu_time_qos_legacy,
           &Rusage::cpu_time_qos_user_initiated, &Rusage::cpu_time_qos_user_interactive>(start, end,
                                                                                         *difference);
}

CpuStatisticsPtr delta_cpu_statistics(cpu_statistics* start, cpu_statistics* end) {
  const Log log = quorvelLog();
  if (!start || !end) {
    log.standard("QVActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n");
    return nullptr;
  }
  const std::span<task_statistics> startTasks = entries(*start);
  const std::span<task_statistics> endTasks = entries(*end);
  sortByPid(startTasks);
  sortByPid(endTasks);

  CpuStatisticsPtr output(static_cast<cpu_statistics*>(std::calloc(1, sizeof(cpu_statistics))));
  if (!output) {
    log.standard("QVActivationStats: delta_cpu_statistics: Failed to allocate memory for output\n");
    return nullptr;
  }
  const size_t capacity = std::max<size_t>(startTasks.size() + endTasks.size(), 1);
  output->tasks = static_cast<task_statistics*>(std::calloc(capacity, sizeof(task_statistics)));
  if (!output->tasks) {
    log.standard("QVActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n");
    return nullptr;
  }
  const size_t count = merge(startTasks, endTasks, output->tasks);
  sortByUserTime({output->tasks, count});
  output->count = static_cast<int32_t>(count);
  return output;
}

}  // namespace quorveld
