#include "kelvane/capture/launched_look.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/capture/descriptor_index.h"

namespace kelvane {
namespace {

uint64_t nsOfClockTicks(uint64_t ticks) {
  return ticks * (1'000'000'000u / static_cast<uint64_t>(std::max(sysconf(_SC_CLK_TCK), 1L)));
}

/// By how much the clock of processes' beginnings is ahead: it goes on while the machine is suspended.
uint64_t suspendedNs() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ns = static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
  return ns - std::min(ns, monotonicNs());
}

/// Since boot, by a clock that stands still while the machine is suspended; in the past where the process was
/// made before such a time.
uint64_t madeNs(const ProcStat& stat) {
  const uint64_t bornNs = nsOfClockTicks(stat.startTicks);
  return bornNs - std::min(bornNs, suspendedNs());
}

/// Its children that had been made by `endNs`, and theirs.
std::vector<Descendant> descendantsOf(pid_t launched, uint64_t endNs) {
  std::vector<Descendant> found;
  const auto addChildren = [&](pid_t parent) {
    for (const pid_t pid : childrenOf(parent)) {
      if (found.size() == kMaxDescendants) return;
      const std::string child = "/proc/" + std::to_string(pid);
      const auto stat = parseStat(readFileAt(AT_FDCWD, (child + "/stat").c_str(), kMaxProcFileBytes).text);
      if (!stat || madeNs(*stat) > endNs) continue;
      found.push_back({pid, parent, listNumbersAt(AT_FDCWD, (child + "/task").c_str(), kMaxThreadsListed)});
    }
  };
  addChildren(launched);
  for (size_t i = 0; i < found.size(); i++) addChildren(found[i].pid);
  return found;
}

}  // namespace

LaunchedLook lookAtLaunched(pid_t pid, uint64_t endNs) {
  LaunchedLook look;
  look.pid = pid;
  look.lookedAtNs = monotonicNs();
  const std::string path = "/proc/" + std::to_string(pid);
  const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return look;
  const auto stat = parseStat(readFileAt(dir.get(), "stat", kMaxProcFileBytes).text);
  if (!stat) return look;
  look.madeNs = madeNs(*stat);
  if (look.madeNs > endNs) return look;
  look.comm = stat->comm;
  look.state = stat->state;
  look.ranNs = nsOfClockTicks(stat->userTicks + stat->systemTicks);
  look.childrenRanNs = nsOfClockTicks(stat->childUserTicks + stat->childSystemTicks);
  look.threads = listNumbersAt(dir.get(), "task", kMaxThreadsListed);
  look.descendants = descendantsOf(pid, endNs);
  look.around = readSurroundings(pid, pid);
  return look;
}

}  // namespace kelvane
