#include "tools/memory/memory_now.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "tools/base/descriptor.h"
#include "tools/base/kernel_text.h"
#include "tools/memory/now_parse.h"

namespace quorvelctl {
namespace {

namespace fs = std::filesystem;

constexpr long kPipeFileSystem = 0x50495045;  // PIPEFS_MAGIC of linux/magic.h

/// Names of the entries of a folder that may go at any time.
std::vector<std::string> entriesOf(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    names.push_back(entry->path().filename());
  }
  return names;
}

std::string linkTarget(const std::string& path) {
  std::array<char, 4096> target;
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<size_t>(length)) : "";
}

/// Nothing when it can't be had. Nobody who serves a file system is asked: that could take for ever.
std::optional<struct statx> statusOf(int folder, const char* path, int flags) {
  struct statx status {};
  if (statx(folder, path, flags | AT_STATX_DONT_SYNC, STATX_BLOCKS | STATX_INO, &status) != 0)
    return std::nullopt;
  return status;
}

/// As mountinfo spells it.
std::string deviceOf(const struct statx& status) {
  return std::to_string(status.stx_dev_major) + ":" + std::to_string(status.stx_dev_minor);
}

/// Collects what is in memory without being one process's own.
class SharedObjects {
 public:
  explicit SharedObjects(std::vector<TmpfsMount> mounts) : mounts_(std::move(mounts)) {
    for (const SysvSegment& segment : parseSysvSegments(kernelText("/proc/sysvipc/shm"))) {
      SharedObject& object = objects_["SysV:" + std::to_string(segment.inode)];
      object = {"SysV", "segment " + std::to_string(segment.id), segment.bytes, {}};
    }
  }

  /// What a process has open and mapped; `folder` is its, or a thread's, in /proc. False when that is
  /// refused.
  bool add(int32_t pid, const std::string& folder) {
    if (access((folder + "/fd").c_str(), R_OK | X_OK) != 0) return false;
    for (const std::string& number : entriesOf(folder + "/fd")) addOpen(pid, folder + "/fd/" + number);
    for (const SharedMapping& mapping : parseSharedMappings(kernelText(folder + "/maps"), mounts_)) {
      addMapping(pid, folder, mapping);
    }
    return true;
  }

  uint64_t pipeBytes() const { return pipeBytes_; }

  std::vector<SharedObject> largestFirst() const {
    std::map<std::vector<int32_t>, SharedObject> pipes;  // those of the same processes together
    std::vector<SharedObject> all;
    for (const auto& [key, object] : objects_) {
      if (object.bytes == 0) continue;
      if (object.kind != "pipe") {
        all.push_back(object);
        continue;
      }
      SharedObject& together = pipes[object.pids];
      together = {"pipe", "", together.bytes + object.bytes, object.pids};
    }
    for (const auto& [pids, object] : pipes) all.push_back(object);
    std::stable_sort(all.begin(), all.end(),
                     [](const SharedObject& a, const SharedObject& b) { return a.bytes > b.bytes; });
    return all;
  }

  std::vector<TmpfsUse> tmpfs() const {
    std::vector<TmpfsUse> uses;
    std::set<std::string> seen;
    for (const TmpfsMount& mount : mounts_) {
      struct statvfs space {};
      // Another file system may be mounted over it, and is not asked.
      const Descriptor place(open(mount.path.c_str(), O_PATH | O_CLOEXEC));
      const auto status = statusOf(place.get(), "", AT_EMPTY_PATH);
      if (!status || deviceOf(*status) != mount.device || fstatvfs(place.get(), &space) != 0) continue;
      if (!seen.insert(mount.device).second) continue;
      const uint64_t used = (space.f_blocks - space.f_bfree) * space.f_frsize;
      if (used > 0) uses.push_back({mount.path, used, space.f_blocks * space.f_frsize});
    }
    std::sort(uses.begin(), uses.end(),
              [](const TmpfsUse& a, const TmpfsUse& b) { return a.usedBytes > b.usedBytes; });
    return uses;
  }

 private:
  void hold(SharedObject& object, int32_t pid) {
    if (object.pids.empty() || object.pids.back() != pid) object.pids.push_back(pid);
  }

  /// Whether a tmpfs is mounted from `device`.
  bool isTmpfs(const std::string& device) const {
    return std::any_of(mounts_.begin(), mounts_.end(),
                       [&](const TmpfsMount& mount) { return mount.device == device; });
  }

  /// The object behind `path`, found by its file's number; null when it can't be asked, and for a file whose
  /// path looks like a tmpfs's and leads elsewhere, in another mount namespace or below another mount.
  SharedObject* objectAt(const std::string& path, const std::string& kind, const std::string& name) {
    const auto status = statusOf(AT_FDCWD, path.c_str(), 0);
    if (!status || (kind == "file" && !isTmpfs(deviceOf(*status)))) return nullptr;
    SharedObject& object = objects_[deviceOf(*status) + ":" + std::to_string(status->stx_ino)];
    object.kind = kind;
    object.name = name;
    object.bytes = status->stx_blocks * 512;
    return &object;
  }

  void addOpen(int32_t pid, const std::string& link) {
    const std::string target = linkTarget(link);
    if (target.starts_with("pipe:[")) return addPipe(pid, link, target);
    const bool isMemfd = target.starts_with("/memfd:");
    const bool looksLikeTmpfs = std::any_of(mounts_.begin(), mounts_.end(), [&](const TmpfsMount& mount) {
      return target.starts_with(mount.path + "/");
    });
    if (!isMemfd && !looksLikeTmpfs) return;
    if (SharedObject* object = objectAt(link, isMemfd ? "memfd" : "file", target)) hold(*object, pid);
  }

  void addMapping(int32_t pid, const std::string& folder, const SharedMapping& mapping) {
    if (mapping.path.starts_with("/SYSV")) {
      const auto segment = objects_.find("SysV:" + std::to_string(mapping.inode));
      if (segment != objects_.end()) hold(segment->second, pid);
      return;
    }
    const char* kind = mapping.path.starts_with("/memfd:") ? "memfd" : "file";
    if (mapping.path.starts_with("/dev/zero")) kind = "mapping";
    const auto known = objects_.find(mapping.device + ":" + std::to_string(mapping.inode));
    SharedObject* object = known != objects_.end()
                               ? &known->second
                               : objectAt(folder + "/map_files/" + mapping.range, kind, mapping.path);
    if (object) hold(*object, pid);
  }

  /// A pipe is opened once more, and closed again, to be asked how much is in it: nothing else tells.
  void addPipe(int32_t pid, const std::string& link, const std::string& name) {
    const auto [found, isNew] = objects_.try_emplace(name, SharedObject{"pipe", "", 0, {}});
    hold(found->second, pid);
    if (!isNew) return;
    const Descriptor place(open(link.c_str(), O_PATH | O_CLOEXEC));
    struct statfs system {};
    if (place.get() < 0 || fstatfs(place.get(), &system) != 0 || system.f_type != kPipeFileSystem) return;
    const std::string same = "/proc/self/fd/" + std::to_string(place.get());
    const Descriptor pipe(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    int bytes = 0;
    if (pipe.get() < 0 || ioctl(pipe.get(), FIONREAD, &bytes) != 0 || bytes < 0) return;
    found->second.bytes = static_cast<uint64_t>(bytes);
    pipeBytes_ += found->second.bytes;
  }

  std::vector<TmpfsMount> mounts_;
  std::map<std::string, SharedObject> objects_;
  uint64_t pipeBytes_ = 0;
};

class ProcessReader {
 public:
  /// Nothing when `pid` has no memory of its own, or has gone.
  std::optional<NowProcess> read(int32_t pid, std::string& folder) {
    folder = "/proc/" + std::to_string(pid);
    std::string status = kernelText(folder + "/status");
    if (!lineBytes(status, "VmRSS")) status = statusOfLiveThread(folder);
    const auto bytes = [&](const char* line) { return lineBytes(status, line).value_or(0); };
    if (!lineBytes(status, "VmRSS")) return std::nullopt;
    NowProcess process;
    process.pid = pid;
    process.residentBytes = bytes("VmRSS");
    process.anonymousBytes = bytes("RssAnon");
    process.fileBytes = bytes("RssFile");
    process.sharedBytes = bytes("RssShmem");
    process.swapBytes = bytes("VmSwap");
    process.hugeBytes = bytes("HugetlbPages");
    process.tableBytes = bytes("VmPTE");
    process.user = userOf(static_cast<uid_t>(lineNumber(status, "Uid:")));
    process.cgroup = cgroupPath(kernelText(folder + "/cgroup"));
    setNames(process, folder, status);
    setShares(process, kernelText(folder + "/smaps_rollup"));
    return process;
  }

 private:
  /// And makes that thread's folder `folder`: a main thread that has ended has no memory, no files, no
  /// program.
  static std::string statusOfLiveThread(std::string& folder) {
    const std::string threads = folder + "/task";
    for (const std::string& thread : entriesOf(threads)) {
      std::string status = kernelText(threads + "/" + thread + "/status");
      if (!lineBytes(status, "VmRSS")) continue;
      folder = threads + "/" + thread;
      return status;
    }
    return {};
  }

  std::string userOf(uid_t uid) {
    const auto [found, isNew] = users_.try_emplace(uid, std::to_string(uid));
    if (!isNew) return found->second;
    if (const passwd* entry = getpwuid(uid)) found->second = entry->pw_name;
    return found->second;
  }

  static void setNames(NowProcess& process, const std::string& folder, const std::string& status) {
    std::string path = linkTarget(folder + "/exe");
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    process.program = path.substr(path.find_last_of('/') + 1);
    if (process.program.empty()) {  // without leave; the kernel's short name is told to everybody
      constexpr std::string_view kName = "Name:\t";
      if (status.starts_with(kName))
        process.program = status.substr(kName.size(), status.find('\n') - kName.size());
    }
    const std::vector<std::string> arguments = argumentsOf(kernelText(folder + "/cmdline"));
    process.name = nameOfProgram(process.program, arguments);
    for (const std::string& argument : arguments)
      process.commandLine += (process.commandLine.empty() ? "" : " ") + argument;
  }

  static void setShares(NowProcess& process, const std::string& rollup) {
    const auto bytes = [&](const char* line) { return lineBytes(rollup, line).value_or(0); };
    const uint64_t huge = bytes("Private_Hugetlb") + bytes("Shared_Hugetlb");
    if (!lineBytes(rollup, "Pss")) return;
    process.pssBytes = bytes("Pss");
    process.ussBytes = bytes("Private_Clean") + bytes("Private_Dirty") + bytes("Private_Hugetlb");
    if (const auto anonymous = lineBytes(rollup, "Pss_Anon")) {
      process.shareBytes = *anonymous + bytes("SwapPss") + huge;
    }
  }

  std::map<uid_t, std::string> users_;
};

/// Marks processes that run in the memory of one before them.
void findTwins(std::vector<NowProcess>& processes) {
  std::map<std::tuple<std::string, uint64_t, uint64_t>, std::vector<const NowProcess*>> alike;
  for (NowProcess& process : processes) {
    auto& candidates = alike[{process.program, process.anonymousBytes, process.tableBytes}];
    for (const NowProcess* other : candidates) {
      if (syscall(SYS_kcmp, process.pid, other->pid, KCMP_VM, 0, 0) == 0) process.isTwin = true;
    }
    if (!process.isTwin && candidates.size() < 8) candidates.push_back(&process);
  }
}

void readZones(MemoryReport& report) {
  std::istringstream lines(kernelText("/proc/slabinfo"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<std::string> columns;
    for (std::string word; words >> word;) columns.push_back(word);
    // name active all size perslab pagesperslab : tunables … : slabdata active slabs shared
    if (columns.size() != 16) continue;
    report.zones.push_back({columns[0], std::strtoull(columns[5].c_str(), nullptr, 10) *
                                            std::strtoull(columns[14].c_str(), nullptr, 10) *
                                            report.pageSizeBytes});
  }
  std::stable_sort(report.zones.begin(), report.zones.end(),
                   [](const NamedBytes& a, const NamedBytes& b) { return a.bytes > b.bytes; });
}

/// The machine's figures as the daemon would report them.
void readMachine(MemoryReport& report, const std::string& memInfo, uint64_t pipeBytes) {
  const auto bytes = [&](const char* line) { return lineBytes(memInfo, line).value_or(0); };
  const auto atLeast0 = [](uint64_t whole, uint64_t part) { return whole > part ? whole - part : 0; };
  const std::string vmstat = kernelText("/proc/vmstat");
  report.pageSizeBytes = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t page = report.pageSizeBytes;
  uint64_t zram = 0;
  for (const std::string& device : entriesOf("/sys/block")) {
    if (device.starts_with("zram")) zram += bytesOfZram(kernelText("/sys/block/" + device + "/mm_stat"));
  }
  report.counters = {
      {"free_count", bytes("MemFree") / page},
      {"internal_page_count", lineNumber(vmstat, "nr_anon_pages") + lineNumber(vmstat, "nr_shmem")},
      {"external_page_count", atLeast0(lineNumber(vmstat, "nr_file_pages"),
                                       lineNumber(vmstat, "nr_shmem") + lineNumber(vmstat, "nr_swapcached"))},
      {"compressor_page_count", bytes("Zswap") / page}};
  report.uses = {{kSharedMemory, bytes("Shmem")},
                 {kHugePages, bytes("Hugetlb")},
                 {kZram, zram},
                 {kTcpBuffers, pagesOfTcp(kernelText("/proc/net/sockstat")) * page},
                 {kCpuLists, pagesInCpuLists(kernelText("/proc/zoneinfo")) * page},
                 {kBalloon, bytes("Balloon")},
                 {kInPipes, pipeBytes},
                 {kLocked, bytes("Mlocked")}};
  report.consumers = {{"VM_KERN_MEMORY_ZONE", bytes("Slab")},
                      {"VM_KERN_MEMORY_PTE", bytes("PageTables")},
                      {"VM_KERN_MEMORY_PMAP", bytes("SecPageTables")},
                      {"VM_KERN_MEMORY_CPU", bytes("Percpu")}};
  report.totals = {{"VM_KERN_COUNT_MANAGED", bytes("MemTotal")},
                   {"VM_KERN_COUNT_MAP_KERNEL", bytes("VmallocUsed")},
                   {kSwapped, atLeast0(bytes("SwapTotal"), bytes("SwapFree"))}};
  readZones(report);
}

}  // namespace

std::optional<MemoryNow> readMemoryNow(std::string& error) {
  const std::string memInfo = kernelText("/proc/meminfo");
  if (memInfo.empty()) {
    error = std::string("can't read /proc/meminfo: ") + std::strerror(errno);
    return std::nullopt;
  }
  MemoryNow now;
  SharedObjects shared(parseTmpfsMounts(kernelText("/proc/self/mountinfo")));
  ProcessReader reader;
  for (const std::string& name : entriesOf("/proc")) {
    int32_t pid = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size())
      continue;
    std::string folder;
    const std::optional<NowProcess> process = reader.read(pid, folder);
    if (!process) continue;
    if (!shared.add(pid, folder)) ++now.refused;
    now.processes.push_back(*process);
  }
  findTwins(now.processes);
  readMachine(now.report, memInfo, shared.pipeBytes());
  now.shared = shared.largestFirst();
  now.tmpfs = shared.tmpfs();
  now.cgroups = readCgroups("/sys/fs/cgroup");
  return now;
}

}  // namespace quorvelctl
