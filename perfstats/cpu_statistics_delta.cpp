#include "perfstats/cpu_statistics_delta.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "base/log.h"
#include "perfstats/task_order.h"
#include "platform/record_order.h"

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

/// False when both readings tell when their process began, and differ: the pid is another's by now.
bool beganTogether(const Rusage& start, const Rusage& end) {
  const uint64_t before = start.proc_start_abstime, now = end.proc_start_abstime;
  return before == 0 || now == 0 || before == now;
}

/// Whether both readings can be of one process; a line says so when they can't.
bool areOfOneProcess(const Rusage& start, const Rusage& end, int32_t pid) {
  if (beganTogether(start, end) &&
      noneFell<&Rusage::user_time, &Rusage::pageins, &Rusage::diskio_bytesread, &Rusage::diskio_byteswritten,
               &Rusage::cpu_time_qos_default, &Rusage::cpu_time_qos_background, &Rusage::cpu_time_qos_utility,
               &Rusage::cpu_time_qos_legacy, &Rusage::cpu_time_qos_user_initiated,
               &Rusage::cpu_time_qos_user_interactive, &Rusage::cpu_time_qos_maintenance>(start, end)) {
    return true;
  }
  quorvelLog().standard(
      " ******* QVActivationStats: Start values are greater than end values "
      "for Pid:%d StartUserTime:%llu EndUserTime:%llu *******",
      pid, static_cast<unsigned long long>(start.user_time), static_cast<unsigned long long>(end.user_time));
  return false;
}

void subtractUsage(const Rusage& start, const Rusage& end, Rusage& difference) {
  subtract<&Rusage::user_time, &Rusage::system_time, &Rusage::pageins, &Rusage::wired_size,
           &Rusage::resident_size, &Rusage::phys_footprint, &Rusage::diskio_bytesread,
           &Rusage::diskio_byteswritten, &Rusage::cpu_time_qos_default, &Rusage::cpu_time_qos_maintenance,
           &Rusage::cpu_time_qos_background, &Rusage::cpu_time_qos_utility, &Rusage::cpu_time_qos_legacy,
           &Rusage::cpu_time_qos_user_initiated, &Rusage::cpu_time_qos_user_interactive>(start, end,
                                                                                         difference);
}

/// One pid in both looks.
struct Pair {
  const task_statistics* start;  ///< null: new
  const task_statistics* end;    ///< null: dead
  bool isOneProcess;             ///< of a pid that is in both

  uint64_t userTime() const {
    if (!end) return 0;
    return isOneProcess ? end->rusage.user_time - start->rusage.user_time : end->rusage.user_time;
  }
};

/// The pids of two arrays sorted by them, ascending.
std::vector<Pair> pairsOf(std::span<const task_statistics> start, std::span<const task_statistics> end) {
  std::vector<Pair> pairs;
  pairs.reserve(start.size() + end.size());
  auto before = start.begin();
  auto now = end.begin();
  while (before != start.end() || now != end.end()) {
    if (before == start.end() || (now != end.end() && now->pid < before->pid)) {
      pairs.push_back({nullptr, &*now++, false});
    } else if (now == end.end() || now->pid > before->pid) {
      pairs.push_back({&*before++, nullptr, false});
    } else {
      pairs.push_back({&*before, &*now, areOfOneProcess(before->rusage, now->rusage, now->pid)});
      ++before, ++now;
    }
  }
  return pairs;
}

/// The name of a pid that is in both looks.
const char* nameOf(const Pair& pair) {
  if (pair.end->name[0] != '\0' || isLaunchProxy(pair.start->name)) return pair.end->name;
  quorvelLog().info(
      "QVActivationStats: Got a valid process name for pid:%d in start snapshot %s. Using that\n",
      pair.start->pid, pair.start->name);
  return pair.start->name;
}

/// Fills a zeroed entry.
void write(const Pair& pair, task_statistics& output) {
  if (!pair.start) {
    platform::copyRecord(output, *pair.end);
    output.state = kTaskNew;
    return;
  }
  output.pid = pair.start->pid;
  output.state = pair.end ? kTaskPresent : kTaskDead;
  std::memcpy(output.name, pair.end ? nameOf(pair) : pair.start->name, sizeof output.name);
  if (!pair.end) return;
  if (pair.isOneProcess) {
    subtractUsage(pair.start->rusage, pair.end->rusage, output.rusage);
  } else {
    platform::copyRecord(output.rusage, pair.end->rusage);
  }
}

}  // namespace

void delta_task_rusage(const Rusage& start, const Rusage& end, Rusage* difference, int32_t pid) {
  if (areOfOneProcess(start, end, pid)) {
    subtractUsage(start, end, *difference);
  } else {
    platform::copyRecord(*difference, end);
  }
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
  const std::vector<Pair> pairs = pairsOf(startTasks, endTasks);
  output->tasks =
      static_cast<task_statistics*>(std::calloc(std::max<size_t>(pairs.size(), 1), sizeof(task_statistics)));
  if (!output->tasks) {
    log.standard("QVActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n");
    return nullptr;
  }
  std::vector<platform::SortKey> order(pairs.size());
  for (uint32_t i = 0; i < pairs.size(); ++i) order[i] = {static_cast<uint32_t>(pairs[i].userTime()), i};
  sortByUserTime(order);
  task_statistics* next = output->tasks;
  for (const platform::SortKey& key : order) write(pairs[key.index], *next++);
  output->count = static_cast<int32_t>(pairs.size());
  return output;
}

}  // namespace quorveld
