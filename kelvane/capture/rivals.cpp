#include "kelvane/capture/rivals.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>
#include <unordered_map>
#include <utility>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/base/proc_text.h"

namespace kelvane {
namespace {

/// A name has much of a CPU from this share of the time on.
constexpr uint64_t kLeastShare = 4;  // a fourth

void addUse(pid_t id, const std::string& directory, bool isOwn, std::vector<CpuUse>& uses) {
  static const auto perSecond = static_cast<uint64_t>(std::max(sysconf(_SC_CLK_TCK), 1L));
  auto stat = parseStat(readFileAt(AT_FDCWD, (directory + "/stat").c_str(), kMaxProcFileBytes).text);
  if (!stat || stat->session == getsid(0)) return;  // that is who looks
  const uint64_t ms = (stat->userTicks + stat->systemTicks) * 1000 / perSecond;
  uses.push_back({id, std::move(stat->comm), isOwn, stat->cpu, ms});
}

/// The hung process's threads first. As far as the time allows: who is in one list alone doesn't count.
std::vector<CpuUse> cpuUses(pid_t process) {
  const Deadline enough(kRivalsWatch);
  std::vector<CpuUse> uses;
  const std::string tasks = "/proc/" + std::to_string(process) + "/task";
  for (const pid_t tid : listNumbersAt(AT_FDCWD, tasks.c_str(), kMaxThreadsListed)) {
    if (enough.passed()) break;
    addUse(tid, tasks + "/" + std::to_string(tid), true, uses);
  }
  for (const pid_t pid : listNumbersAt(AT_FDCWD, "/proc", kMaxProcessesScanned)) {
    if (enough.passed()) break;
    if (pid != process) addUse(pid, "/proc/" + std::to_string(pid), false, uses);
  }
  return uses;
}

}  // namespace

std::optional<Rivals> rivalsOf(pid_t thread, const std::vector<CpuUse>& before,
                               const std::vector<CpuUse>& after, uint64_t watchedMs) {
  std::unordered_map<pid_t, uint64_t> earlierMs;
  for (const CpuUse& use : before) earlierMs[use.id] = use.ms;
  const auto hung =
      std::find_if(after.begin(), after.end(), [&](const CpuUse& use) { return use.id == thread; });
  if (hung == after.end() || hung->cpu < 0) return std::nullopt;
  std::map<std::pair<bool, std::string>, Rivals> byName;
  uint64_t busiestMs = 0;
  Rivals most;
  for (const CpuUse& use : after) {
    const auto earlier = earlierMs.find(use.id);
    if (use.id == thread || use.cpu != hung->cpu || earlier == earlierMs.end() || use.ms <= earlier->second)
      continue;
    const uint64_t ranMs = use.ms - earlier->second;
    Rivals& rivals = byName[{use.isOwn, use.name}];
    if (rivals.count++ == 0 || ranMs > busiestMs) {
      rivals.busiest = use.id;
      busiestMs = ranMs;
    }
    rivals.name = use.name;
    rivals.areOwn = use.isOwn;
    rivals.ranMs += ranMs;
    if (rivals.ranMs > most.ranMs) most = rivals;
  }
  if (most.ranMs * kLeastShare < watchedMs) return std::nullopt;
  most.watchedMs = watchedMs;
  return most;
}

std::optional<Rivals> watchRivals(pid_t process, pid_t thread, std::chrono::milliseconds time) {
  const uint64_t startNs = monotonicNs();
  const std::vector<CpuUse> before = cpuUses(process);
  std::this_thread::sleep_for(time);
  return rivalsOf(thread, before, cpuUses(process), (monotonicNs() - startNs) / 1'000'000);
}

}  // namespace kelvane
