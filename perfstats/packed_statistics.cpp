#include "perfstats/packed_statistics.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "perfstats/task_order.h"

namespace quorveld {

namespace {

/// A look that differs from the base in more than one process of so many becomes a base itself.
constexpr size_t kSharedEnough = 8;

bool isSame(const task_statistics& a, const task_statistics& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

std::unique_ptr<PackedStatistics> SharedLooks::pack(cpu_statistics& look, uint32_t forUid) {
  const std::span<task_statistics> tasks(look.tasks, static_cast<size_t>(std::max(look.count, 0)));
  sortByPid(tasks);
  PackedStatistics packed;
  if (base_) {
    const PackedStatistics::Tasks& base = base_->tasks;
    auto old = base.begin();
    for (const task_statistics& task : tasks) {
      for (; old != base.end() && old->pid < task.pid; ++old) packed.gone_.push_back(old->pid);
      const bool known = old != base.end() && old->pid == task.pid;
      if (!known || !isSame(*old, task)) packed.changed_.push_back(task);
      if (known) ++old;
    }
    for (; old != base.end(); ++old) packed.gone_.push_back(old->pid);
  }
  if (!base_ || packed.changed_.size() + packed.gone_.size() > tasks.size() / kSharedEnough) {
    packed = {};
    auto memory = memory_.tryTake(forUid, sizeof(PackedStatistics::Base) + tasks.size_bytes());
    if (!memory) return nullptr;
    base_ = std::make_shared<const PackedStatistics::Base>(
        PackedStatistics::Base{std::move(memory), {tasks.begin(), tasks.end()}});
  }
  packed.changed_.shrink_to_fit();
  packed.gone_.shrink_to_fit();
  packed.base_ = base_;
  packed.memory_ = memory_.tryTake(forUid, sizeof packed + packed.changed_.size() * sizeof(task_statistics) +
                                               packed.gone_.size() * sizeof(int32_t));
  return packed.memory_ ? std::make_unique<PackedStatistics>(std::move(packed)) : nullptr;
}

CpuStatisticsPtr PackedStatistics::unpacked() const {
  CpuStatisticsPtr look(static_cast<cpu_statistics*>(std::calloc(1, sizeof(cpu_statistics))));
  if (!look) return nullptr;
  const size_t capacity = std::max<size_t>(base_->tasks.size() + changed_.size(), 1);
  look->tasks = static_cast<task_statistics*>(std::calloc(capacity, sizeof(task_statistics)));
  if (!look->tasks) return nullptr;
  task_statistics* out = look->tasks;
  auto changed = changed_.begin();
  auto gone = gone_.begin();
  for (const task_statistics& task : base_->tasks) {
    while (changed != changed_.end() && changed->pid < task.pid) *out++ = *changed++;
    if (changed != changed_.end() && changed->pid == task.pid) {
      *out++ = *changed++;
    } else if (gone != gone_.end() && *gone == task.pid) {
      ++gone;
    } else {
      *out++ = task;
    }
  }
  out = std::copy(changed, changed_.end(), out);
  look->count = static_cast<int32_t>(out - look->tasks);
  return look;
}

}  // namespace quorveld
