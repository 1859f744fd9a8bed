#include "platform/linux/memory/fork_shares.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/memory/kernel_memory_text.h"

namespace quorveld::linux_platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// For all walks of one report.
constexpr std::chrono::milliseconds kShareBudget(10);
/// What a walk takes a resident page on a machine that has nothing else to do. One that doesn't fit into what
/// is left of the budget isn't begun.
constexpr std::chrono::nanoseconds kWalkPerPage(60);
/// Counts lag behind by what each CPU has not handed in yet: no reason to walk.
constexpr uint64_t kChancePages = 2048;
/// A smaller process changes no picture.
constexpr uint64_t kSmallestPages = 256;

constexpr size_t kMaxRollupBytes = size_t{16} * 1024;

/// What the thread has found so far; shared with it, since it may be left behind.
struct Findings {
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  std::map<int32_t, uint64_t> pages;
};

std::optional<uint64_t> sharePages(int32_t pid) {
  static const auto pageKb = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
  std::error_code refused;
  const auto rollup = readFile("/proc/" + std::to_string(pid) + "/smaps_rollup", kMaxRollupBytes, refused);
  const auto kb = rollup ? parseShareKb(*rollup) : std::nullopt;
  return kb ? std::optional(*kb / pageKb) : std::nullopt;
}

void readShares(const std::vector<SharingProcess>& members, uint64_t excessPages, SteadyClock::time_point end,
                Findings& findings) {
  for (const SharingProcess& member : members) {
    const auto walk = kWalkPerPage * static_cast<int64_t>(member.residentPages);
    if (walk > kShareBudget || SteadyClock::now() + walk > end) continue;
    const auto share = sharePages(member.pid);
    if (!share || *share >= member.footprintPages) continue;
    const uint64_t countedTwice = member.footprintPages - *share;
    const std::lock_guard lock(findings.mutex);
    findings.pages.emplace(member.pid, *share);
    if (countedTwice >= excessPages) break;
    excessPages -= countedTwice;
  }
  const std::lock_guard lock(findings.mutex);
  findings.done = true;
  findings.ended.notify_one();
}

}  // namespace

std::vector<SharingProcess> membersOfFamilies(std::vector<SharingProcess> processes) {
  std::erase_if(processes, [](const SharingProcess& process) {
    return process.program == 0 || process.footprintPages < kSmallestPages;
  });
  struct Family {
    uint64_t sumPages = 0;
    uint64_t largestPages = 0;
    size_t members = 0;
    uint64_t countedTwice() const { return sumPages - largestPages; }
  };
  std::map<uint64_t, Family> families;
  for (const SharingProcess& process : processes) {
    Family& family = families[process.program];
    family.sumPages += process.footprintPages;
    family.largestPages = std::max(family.largestPages, process.footprintPages);
    ++family.members;
  }
  std::erase_if(processes,
                [&](const SharingProcess& process) { return families[process.program].members < 2; });
  const auto rank = [&](const SharingProcess& process) {
    return std::tuple(families[process.program].countedTwice(), process.program, process.footprintPages,
                      process.pid);
  };
  std::sort(processes.begin(), processes.end(), [&](const SharingProcess& left, const SharingProcess& right) {
    return rank(right) < rank(left);
  });
  return processes;
}

std::optional<uint64_t> parseShareKb(std::string_view rollup) {
  const auto bytes = [&](const char* line) { return memInfoBytes(rollup, line); };
  const auto anonymous = bytes("Pss_Anon");
  if (!anonymous) return std::nullopt;
  return (*anonymous + bytes("SwapPss").value_or(0)) / 1024;
}

std::map<int32_t, uint64_t> ForkShares::read(std::vector<SharingProcess> processes, uint64_t availablePages) {
  uint64_t claimedPages = 0;
  for (const SharingProcess& process : processes) claimedPages += process.footprintPages;
  if (claimedPages <= availablePages + kChancePages) return {};
  auto members = membersOfFamilies(std::move(processes));
  if (members.empty()) return {};

  const auto findings = std::make_shared<Findings>();
  const auto end = SteadyClock::now() + kShareBudget;
  const bool begun = thread_.tryPost(
      [findings, end, members = std::move(members), excess = claimedPages - availablePages] {
        readShares(members, excess, end, *findings);
        return std::error_code();
      },
      [](std::error_code) {});
  if (!begun) return {};  // the last one is stuck
  std::unique_lock lock(findings->mutex);
  findings->ended.wait_until(lock, end, [&] { return findings->done; });
  return findings->pages;
}

}  // namespace quorveld::linux_platform
