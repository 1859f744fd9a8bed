#include "kelvane/capture/launched_look.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "kelvane/base/deadline.h"
#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"

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
  const uint64_t bornNs = nsOfClockTicks(stat->startTicks);
  look.madeNs = bornNs - std::min(bornNs, suspendedNs());
  if (look.madeNs > endNs) return look;
  look.comm = stat->comm;
  look.state = stat->state;
  look.ranNs = nsOfClockTicks(stat->userTicks + stat->systemTicks);
  look.childrenRanNs = nsOfClockTicks(stat->childUserTicks + stat->childSystemTicks);
  look.threads = listNumbersAt(dir.get(), "task", kMaxThreadsListed);
  look.around = readSurroundings(pid, pid);
  return look;
}

}  // namespace kelvane
