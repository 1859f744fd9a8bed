#include "kelvane/capture/surroundings.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <utility>

#include "kelvane/base/limits.h"
#include "kelvane/base/proc_files.h"
#include "kelvane/threads/thread_facts.h"

namespace kelvane {
namespace {

constexpr uint64_t kNsPerUs = 1'000;

std::optional<uint64_t> numberOf(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  return number;
}

std::string_view takeUntil(std::string_view& text, char end) {
  const std::string_view part = text.substr(0, text.find(end));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

/// Whether the comma-separated `list` has `item`.
bool lists(std::string_view list, std::string_view item) {
  while (!list.empty()) {
    if (takeUntil(list, ',') == item) return true;
  }
  return false;
}

/// One group's directory, and the files in it.
class Group {
 public:
  Group(const std::string& root, const std::string& path) : dir_(root + path + "/") {}
  std::string text(const char* file) const {
    return readFileAt(AT_FDCWD, (dir_ + file).c_str(), kMaxProcFileBytes).text;
  }
  /// The number that the file begins with.
  std::optional<uint64_t> number(const char* file) const { return numberOf(text(file)); }
  std::optional<uint64_t> number(const char* file, std::string_view key) const {
    return parseGroupNumber(text(file), key);
  }
  /// The first ones of its processes.
  std::vector<pid_t> members() const {
    const std::string procs = text("cgroup.procs");
    std::string_view rest = procs;
    std::vector<pid_t> pids;
    while (!rest.empty() && pids.size() < kMaxProcessesListed) {
      if (const auto pid = numberOf(takeUntil(rest, '\n'))) pids.push_back(static_cast<pid_t>(*pid));
    }
    return pids;
  }

 private:
  std::string dir_;
};

/// Calls `visit` with the group at `path` and those above it, the root excepted, which has no limits.
void visitUpwards(const std::string& root, std::string path,
                  const std::function<void(const Group&, const std::string& path)>& visit) {
  for (size_t depth = 0; path.size() > 1 && depth < kMaxGroupDepth; depth++) {
    visit(Group(root, path), path);
    path.resize(path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
  }
}

/// Beside the old hierarchies the unified one has a folder of its own.
const char* unifiedRoot() {
  const char* beside = "/sys/fs/cgroup/unified";
  return faccessat(AT_FDCWD, beside, F_OK, 0) == 0 ? beside : "/sys/fs/cgroup";
}

/// Where one kind of limit is kept: the unified hierarchy, or the controller's own of before.
struct Hierarchy {
  std::string root;
  std::string path;
  bool isUnified = false;
};

class Limits {
 public:
  explicit Limits(std::string groups) : groups_(std::move(groups)) {}

  GroupLimits read() {
    readFreezer();
    visitAll("cpu", &Limits::takeQuota);
    visitAll("memory", &Limits::takeMemory);
    visitAll("blkio", &Limits::takeDiskLimit);
    return std::move(limits_);
  }

 private:
  using Take = void (Limits::*)(const Group& group, const std::string& path, bool isUnified);

  std::optional<Hierarchy> hierarchy(std::string_view controller) const {
    const auto own = parseGroupPath(groups_, controller);
    // A group outside of this process's namespace has no path here.
    if (own && leadsOut(*own)) return std::nullopt;
    if (own) return Hierarchy{"/sys/fs/cgroup/" + std::string(controller), *own, false};
    auto unified = parseGroupPath(groups_, "");
    if (!unified || leadsOut(*unified)) return std::nullopt;
    return Hierarchy{unifiedRoot(), *unified, true};
  }

  static bool leadsOut(std::string_view path) {
    return path.find("/../") != std::string_view::npos || path.ends_with("/..");
  }

  void visitAll(std::string_view controller, Take take) {
    const auto found = hierarchy(controller);
    if (!found) return;
    visitUpwards(found->root, found->path, [&](const Group& group, const std::string& path) {
      (this->*take)(group, path, found->isUnified);
    });
  }

  /// A frozen group's children are frozen too, and say so.
  void readFreezer() {
    // Where the old hierarchy is in use, the unified one freezes its own groups all the same.
    const auto old = parseGroupPath(groups_, "freezer");
    if (old && !leadsOut(*old)) {
      const Group group("/sys/fs/cgroup/freezer", *old);
      if (group.text("freezer.state").starts_with("FROZEN")) limits_.frozen = *old;
    }
    const auto unified = parseGroupPath(groups_, "");
    if (!unified || leadsOut(*unified)) return;
    const Group group(unifiedRoot(), *unified);
    if (group.number("cgroup.events", "frozen").value_or(0) == 1) limits_.frozen = *unified;
  }

  void takeQuota(const Group& group, const std::string& path, bool isUnified) {
    std::optional<uint64_t> quotaUs, periodUs;
    if (isUnified) {
      const std::string text = group.text("cpu.max");  // "max 100000" without a limit
      std::string_view rest = text;
      quotaUs = numberOf(takeUntil(rest, ' '));
      periodUs = numberOf(rest);
    } else {
      quotaUs = group.number("cpu.cfs_quota_us");  // -1 without a limit
      periodUs = group.number("cpu.cfs_period_us");
    }
    const uint64_t everyUs = periodUs.value_or(0);
    if (!quotaUs || everyUs == 0) return;
    const std::string stat = group.text("cpu.stat");
    GroupLimits::Quota quota;
    quota.group = path;
    quota.cpus = static_cast<double>(*quotaUs) / static_cast<double>(everyUs);
    quota.throttledNs = isUnified ? parseGroupNumber(stat, "throttled_usec").value_or(0) * kNsPerUs
                                  : parseGroupNumber(stat, "throttled_time").value_or(0);
    if (limits_.quota && quota.throttledNs <= limits_.quota->throttledNs) return;
    quota.members = group.members();
    limits_.quota = std::move(quota);
  }

  void takeMemory(const Group& group, const std::string& path, bool isUnified) {
    GroupLimits::Memory memory;
    memory.group = path;
    memory.limitBytes = UINT64_MAX;
    const std::string stat = group.text("memory.stat");
    for (const char* kind : {"workingset_refault_file", "workingset_refault_anon"}) {
      memory.refaults += parseGroupNumber(stat, kind).value_or(0);
    }
    if (isUnified) {
      for (const char* file : {"memory.high", "memory.max"}) {
        memory.limitBytes = std::min(memory.limitBytes, group.number(file).value_or(UINT64_MAX));
      }
      const std::string events = group.text("memory.events");
      memory.hits =
          parseGroupNumber(events, "high").value_or(0) + parseGroupNumber(events, "max").value_or(0);
    } else {
      memory.limitBytes = group.number("memory.limit_in_bytes").value_or(UINT64_MAX);
      memory.hits = group.number("memory.failcnt").value_or(0);
    }
    if (memory.hits > 0 && (!limits_.memory || memory.hits > limits_.memory->hits)) limits_.memory = memory;
  }

  void takeDiskLimit(const Group& group, const std::string& path, bool isUnified) {
    const auto limits = [&](const char* file) { return !group.text(file).empty(); };
    constexpr std::array<const char*, 4> kOld = {
        "blkio.throttle.read_bps_device", "blkio.throttle.write_bps_device",
        "blkio.throttle.read_iops_device", "blkio.throttle.write_iops_device"};
    if (isUnified ? limits("io.max") : std::any_of(kOld.begin(), kOld.end(), limits))
      limits_.diskLimit = path;
  }

  std::string groups_;
  GroupLimits limits_;
};

}  // namespace

std::optional<ScheduleFigures> parseSchedstat(std::string_view text) {
  const auto ran = numberOf(takeUntil(text, ' '));
  const auto waited = numberOf(text);
  if (!ran || !waited) return std::nullopt;
  return ScheduleFigures{*ran, *waited};
}

std::optional<std::string> parseGroupPath(std::string_view text, std::string_view controller) {
  // "4:cpu,cpuacct:/system.slice", "0::/system.slice"
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    takeUntil(line, ':');
    const std::string_view controllers = takeUntil(line, ':');
    const bool fits = controller.empty() ? controllers.empty() : lists(controllers, controller);
    if (fits && line.starts_with('/')) return std::string(line);
  }
  return std::nullopt;
}

std::optional<uint64_t> parseGroupNumber(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    if (takeUntil(line, ' ') == key) return numberOf(line);
  }
  return std::nullopt;
}

Surroundings readSurroundings(pid_t pid, pid_t thread) {
  Surroundings surroundings;
  surroundings.thread = thread;
  const std::string path = "/proc/" + std::to_string(pid);
  const UniqueFd dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const auto read = [&](const std::string& file) {
    return readFileAt(dir.get(), file.c_str(), kMaxProcFileBytes).text;
  };
  if (!dir) return surroundings;
  surroundings.schedule = parseSchedstat(read(taskPath(thread, "schedstat")));
  const ProcStat stat = parseStat(read(taskPath(thread, "stat"))).value_or(ProcStat{});
  surroundings.majorFaults = stat.majorFaults;
  surroundings.userTicks = stat.userTicks;
  surroundings.systemTicks = stat.systemTicks;
  surroundings.limits = Limits(read("cgroup")).read();
  return surroundings;
}

}  // namespace kelvane
