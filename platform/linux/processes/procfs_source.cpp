#include <linux/kcmp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/linux/base/linux_log.h"
#include "platform/linux/processes/process_table_source.h"
#include "platform/linux/processes/procfs_parse.h"
#include "platform/linux/processes/procfs_reader.h"

namespace quorveld::linux_platform {

namespace {

/// "4194304/task/4194304/stat", the longest path below /proc that is read, and its NUL.
constexpr size_t kPathBytes = 40;

/// Whether both processes run in one memory; false, too, where the kernel doesn't tell.
bool inOneMemory(const process_sample& one, const process_sample& other) {
  return syscall(SYS_kcmp, one.pid, other.pid, KCMP_VM, 0, 0) == 0;
}

/// Reads stat, status and io of each process; of the threads only where there are several and CPU was spent,
/// since nothing else depends on them.
///
/// Most processes sleep from one look to the next. Of one that has not run, as its only thread's schedstat
/// tells, no counter has changed, and its memory only if that shows in statm: the two cost a third of the
/// others, and where they read as before, so does the sample. Of one with threads, whose schedstat tells of
/// the first alone, stat is read in its place, and io always: a thread may have read a file in less than a
/// tick. What one has locked in less, without a fault, shows when more has happened. Huge pages never show in
/// statm, nor do pages in swap, which a thread may give back in less: who has such is read whole each time.
class ProcfsSource final : public ProcessSource {
 public:
  const char* name() const override { return "procfs"; }
  bool usable() const { return static_cast<bool>(proc_); }

  std::span<const process_sample> read(const ProcessRecords& before) override {
    constexpr size_t kHeadroomShare = 8;
    samples_.clear();
    samples_.reserve(before.size() + before.size() / kHeadroomShare);
    std::swap(marks_, lastMarks_);
    marks_.clear();
    size_t cursor = 0;
    auto known = lastMarks_.begin();  // /proc lists processes in ascending order
    proc_.forEachNumber([&](int32_t pid) {
      while (known != lastMarks_.end() && known->pid < pid) ++known;
      const Mark lastMark = known != lastMarks_.end() && known->pid == pid ? *known : Mark{};
      const ProcessRecord* last = findRecord(before, pid, cursor);
      // These come before all else that is read of the process: who runs meanwhile is read anew the next
      // time.
      const size_t memory = hashOf(readFileOf(pid, "statm"));
      const std::string_view text = readFileOf(pid, lastMark.hasThreads ? "stat" : "schedstat");
      Mark mark{pid, lastMark.hasThreads, kNoMark};
      if (leadingNumber(text) != 0)  // 0: a kernel that doesn't count in schedstat
        mark.value = std::max<uint64_t>(std::rotl(hashOf(text), 1) ^ memory, kNoMark + 1);
      process_sample sample{};
      sample.pid = pid;
      if (last && mark.value != kNoMark && mark == lastMark) {
        sample = last->sample;
        if (mark.hasThreads && !readIo(sample)) return;
      } else if (!readProcess(sample, last, mark.hasThreads ? text : readFileOf(pid, "stat"), mark)) {
        return;
      }
      samples_.push_back(sample);
      marks_.push_back(mark);
    });
    findSharedMemory();
    return samples_;
  }

  void rest() override { samples_ = std::vector<process_sample>(); }

 private:
  /// Of a sample that is read anew the next time, whatever stands in the files.
  static constexpr uint64_t kNoMark = 0;

  struct Mark {
    int32_t pid = 0;
    bool hasThreads = false;
    uint64_t value = kNoMark;  ///< what statm, and schedstat or stat, said when the sample was read
    bool operator==(const Mark&) const = default;
  };

  static uint64_t hashOf(std::string_view text) { return std::hash<std::string_view>{}(text); }

  std::string_view readFileOf(int32_t pid, const char* file) {
    char path[kPathBytes];
    std::snprintf(path, sizeof(path), "%d/%s", pid, file);
    return proc_.read(path);
  }

  /// False when the process has gone in between. `mark` becomes none when it can't tell whether the process
  /// changes.
  bool readProcess(process_sample& sample, const ProcessRecord* last, std::string_view text, Mark& mark) {
    const std::optional<ProcfsStat> stat = parseStat(text);
    if (!stat) return false;
    setFromStat(sample, *stat);
    const bool hasThreads = stat->threadCount > 1;
    // The run time of one that stays on its CPU is counted at ticks, of which there may be one a second.
    if (stat->state == 'R' || hasThreads != mark.hasThreads) mark.value = kNoMark;
    mark.hasThreads = hasThreads;

    if (last && last->sample.start_ns != sample.start_ns) last = nullptr;
    if (!hasThreads) {
      sample.class_runtime_ns[sample.leader_class] = sample.runtime_ns;
    } else if (sample.runtime_ns == (last ? last->sample.runtime_ns : 0)) {
      sample.flags |= kSampleClassesUnknown;
    } else {
      readThreads(sample);
    }
    return (stat->isKernelThread() || readMemory(sample, mark)) && readIo(sample);
  }

  void setFromStat(process_sample& sample, const ProcfsStat& stat) const {
    const std::string_view comm = commOf(stat);
    std::memcpy(sample.comm, comm.data(), comm.size());
    sample.flags = kSampleHasLeader;
    sample.leader_class = qosClassOf(stat.policy, stat.nice, stat.isKernelThread());
    sample.start_ns = stat.startTicks * tickNs_;
    // The kernel has scaled them already: what it answered last is what it answers now.
    sample.prev_utime_ns = sample.utime_ns = stat.userTicks * tickNs_;
    sample.prev_stime_ns = sample.stime_ns = stat.systemTicks * tickNs_;
    sample.runtime_ns = sample.utime_ns + sample.stime_ns;
    sample.child_utime_ns = stat.childUserTicks * tickNs_;
    sample.child_stime_ns = stat.childSystemTicks * tickNs_;
    sample.major_faults = stat.majorFaults;
    sample.child_major_faults = stat.childMajorFaults;
  }

  void readThreads(process_sample& sample) {
    char path[kPathBytes];
    std::snprintf(path, sizeof(path), "/proc/%d/task", sample.pid);
    ProcfsReader threads(path);
    if (!threads) return;
    threads.forEachNumber([&](int32_t tid) {
      char file[kPathBytes];
      std::snprintf(file, sizeof(file), "%d/stat", tid);
      const std::optional<ProcfsStat> stat = parseStat(threads.read(file));
      if (!stat) return;
      const qos_class held = qosClassOf(stat->policy, stat->nice, stat->isKernelThread());
      const uint64_t ticksNs = (stat->userTicks + stat->systemTicks) * tickNs_;
      sample.class_runtime_ns[held] += threadRuntimeNs(threads, tid, ticksNs);
    });
  }

  /// What a thread has run. Its `stat` says so in whole ticks alone, cut off: of many threads that ran for
  /// part of one each, most would be taken for nobody's.
  uint64_t threadRuntimeNs(ProcfsReader& threads, int32_t tid, uint64_t ticksNs) {
    if (runtimeFile_ == RuntimeFile::none) return ticksNs;
    char file[kPathBytes];
    const bool isSchedstat = runtimeFile_ == RuntimeFile::schedstat;
    std::snprintf(file, sizeof(file), "%d/%s", tid, isSchedstat ? "schedstat" : "sched");
    const std::string_view text = threads.read(file);
    const uint64_t runtimeNs = isSchedstat ? parseSchedstat(text) : parseSched(text);
    const bool isGone = text.empty() && (errno == ESRCH || (errno == ENOENT && !threadIsThere(threads, tid)));
    if (runtimeNs > 0 || ticksNs == 0 || isGone) return std::max(runtimeNs, ticksNs);
    runtimeFile_ = isSchedstat ? RuntimeFile::sched : RuntimeFile::none;
    if (runtimeFile_ == RuntimeFile::none) {
      logDefault(
          "Process table: the kernel counts threads' run time in ticks alone (no schedstat, no sched), "
          "of threads of different classes the main one's is given what is cut off");
    }
    return threadRuntimeNs(threads, tid, ticksNs);
  }

  static bool threadIsThere(ProcfsReader& threads, int32_t tid) {
    char file[kPathBytes];
    std::snprintf(file, sizeof(file), "%d/stat", tid);
    return !threads.read(file).empty();
  }

  bool readMemory(process_sample& sample, Mark& mark) {
    const std::string_view text = readFileOf(sample.pid, "status");
    if (text.empty()) return false;
    ProcfsStatus status = parseStatus(text);
    if (!status.hasMemory && mark.hasThreads) {
      status = statusOfLiveThread(sample.pid);
      mark.value = kNoMark;  // of that one's memory, statm tells nothing
    }
    if (!status.hasMemory) return true;
    if (status.hugeKb > 0 || (mark.hasThreads && status.swappedKb > 0)) mark.value = kNoMark;
    sample.flags |= kSampleHasMemory;
    sample.resident_pages = status.residentKb / pageKb_;
    sample.huge_pages = status.hugeKb / pageKb_;
    sample.footprint_pages = (status.anonymousKb + status.swappedKb + status.hugeKb) / pageKb_;
    sample.locked_pages = status.lockedKb / pageKb_;
    sample.program = programOf(sample.pid);
    return true;
  }

  /// Of a process whose main thread has ended: that one's has no memory in it.
  ProcfsStatus statusOfLiveThread(int32_t pid) {
    ProcfsStatus status{};
    char path[kPathBytes];
    std::snprintf(path, sizeof(path), "/proc/%d/task", pid);
    ProcfsReader threads(path);
    if (!threads) return status;
    threads.forEachNumber([&](int32_t tid) {
      if (status.hasMemory) return;
      char file[kPathBytes];
      std::snprintf(file, sizeof(file), "%d/status", tid);
      status = parseStatus(threads.read(file));
    });
    return status;
  }

  static uint64_t programOf(int32_t pid) {
    char link[kPathBytes];
    std::snprintf(link, sizeof(link), "/proc/%d/exe", pid);
    std::array<char, 4096> program;
    const ssize_t length = readlink(link, program.data(), program.size());
    if (length <= 0) return 0;
    std::string_view path(program.data(), static_cast<size_t>(length));
    constexpr std::string_view kGone = " (deleted)";  // since; one of its forks may not have been asked again
    if (path.ends_with(kGone)) path.remove_suffix(kGone.size());
    return std::hash<std::string_view>{}(path) | 1;
  }

  /// The kernel tells this of two processes alone: asked are those of one program that look alike.
  void findSharedMemory() {
    const auto look = [](const process_sample& sample) {
      return std::tie(sample.program, sample.resident_pages, sample.footprint_pages);
    };
    std::vector<size_t> alike;
    for (size_t i = 0; i < samples_.size(); ++i) {
      process_sample& sample = samples_[i];
      sample.memory = 0;
      if (sample.program != 0 && sample.footprint_pages != 0) alike.push_back(i);
    }
    std::sort(alike.begin(), alike.end(),
              [&](size_t left, size_t right) { return look(samples_[left]) < look(samples_[right]); });
    for (size_t i = 1; i < alike.size(); ++i) {
      process_sample& sample = samples_[alike[i]];
      process_sample& last = samples_[alike[i - 1]];
      if (look(sample) != look(last) || !inOneMemory(sample, last)) continue;
      if (last.memory == 0) last.memory = static_cast<uint64_t>(last.pid);
      sample.memory = last.memory;
      // The other may change it.
      marks_[alike[i]].value = marks_[alike[i - 1]].value = kNoMark;
    }
  }

  /// I/O is told to those who might trace the process (ptrace(2)): to others it reads as 0.
  bool readIo(process_sample& sample) {
    const std::string_view text = readFileOf(sample.pid, "io");
    if (text.empty()) {
      if (errno != EACCES && errno != EPERM) return errno != ENOENT && errno != ESRCH;
      if (!saidIoRefused_) {
        logDefault(
            "Process table: /proc/PID/io of others can't be read without CAP_SYS_PTRACE, "
            "their disk I/O counts as 0");
      }
      saidIoRefused_ = true;
      return true;
    }
    const ProcfsIo io = parseIo(text);
    sample.read_bytes = io.readBytes;
    sample.write_bytes = io.writeBytes;
    return true;
  }

  ProcfsReader proc_{"/proc"};
  const uint64_t tickNs_ = 1'000'000'000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  const uint64_t pageKb_ = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
  bool saidIoRefused_ = false;
  enum class RuntimeFile { schedstat, sched, none };
  RuntimeFile runtimeFile_ = RuntimeFile::schedstat;  ///< that this kernel counts in
  std::vector<process_sample> samples_;
  std::vector<Mark> marks_, lastMarks_;  ///< one for each sample, of this pass and of the last one
};

}  // namespace

std::unique_ptr<ProcessSource> openProcfsSource(std::string& why) {
  auto source = std::make_unique<ProcfsSource>();
  if (source->usable()) {
    // Everybody may read that of process 1, unless /proc is mounted with hidepid (proc(5)).
    if (access("/proc/1/stat", R_OK) != 0) {
      logDefault("Process table: /proc hides the processes of others (hidepid), snapshots are without them");
    }
    return source;
  }
  why = std::string("/proc: ") + std::strerror(errno);
  return nullptr;
}

}  // namespace quorveld::linux_platform
