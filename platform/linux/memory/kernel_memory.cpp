#include "platform/linux/memory/kernel_memory.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <utility>

#include "platform/linux/base/file_bytes.h"
#include "platform/linux/base/linux_log.h"

namespace quorveld::linux_platform {

namespace {

using platform::KernelMemoryInfo;
using platform::memory_info_site;
using platform::priority_list_entry;

/// The kernel's own texts: bounded all the same, since modules and callers have no fixed number.
constexpr size_t kMaxFileBytes = size_t{8} * 1024 * 1024;

constexpr const char* kVmallocInfo = "/proc/vmallocinfo";

constexpr size_t kResidentIndex = 0;
constexpr size_t kFootprintIndex = 1;
constexpr size_t kLedgerEntries = 2;

constexpr uint64_t kWired = 0x100;
enum SiteKind : uint64_t { kTag = 0, kExtension = 1, kKernelSite = 2, kCounter = 3 };

/// Tags of wired memory and the lines of /proc/meminfo that hold what they stand for.
constexpr std::array<std::pair<uint64_t, const char*>, 10> kTagLines = {{
    {8, "KernelStack"},
    {9, "Percpu"},
    {10, "SecPageTables"},
    {11, "PageTables"},
    {12, "Slab"},
    {14, "Zswap"},
    {24, "Mlocked"},
    {100, "Shmem"},
    {101, "Hugetlb"},
    {105, "Balloon"},
}};
/// Tags of what no one line holds. Those from 100 on have no name but in docs/memory-report.md.
enum Tag : uint64_t { kLargeAllocations = 13, kZram = 102, kTcpBuffers = 103, kCpuLists = 104 };

enum Counter : uint64_t { kManaged = 0, kReserved = 1, kLowPages = 5, kKernelMap = 6, kSwapped = 100 };

memory_info_site wiredSite(SiteKind kind, uint64_t site, uint64_t sizeBytes) {
  memory_info_site info{};
  info.flags = kWired | kind;
  info.site = site;
  info.size = sizeBytes;
  return info;
}

void addZones(KernelMemoryInfo& info, const std::vector<SlabCache>& caches) {
  for (const SlabCache& cache : caches) {
    platform::zone_name name{};
    std::strncpy(name.name, cache.name.c_str(), sizeof(name.name) - 1);
    info.zoneNames.push_back(name);
    platform::zone_info zone{};
    zone.element_count = cache.objectCount;
    zone.current_size = cache.sizeBytes;
    zone.element_size = cache.objectBytes;
    info.zoneInfos.push_back(zone);
  }
}

/// A file that a kernel may lack; then it is empty.
std::string readIfThere(const std::string& path) {
  std::error_code absent;
  return readFile(path, kMaxFileBytes, absent).value_or("");
}

uint64_t zramBytes() {
  uint64_t sum = 0;
  std::error_code none;
  for (const auto& device : std::filesystem::directory_iterator("/sys/block", none)) {
    if (!device.path().filename().string().starts_with("zram")) continue;
    sum += parseZramBytes(readIfThere(device.path().string() + "/mm_stat"));
  }
  return sum;
}

uint64_t remainder(uint64_t whole, uint64_t part) {
  return whole > part ? whole - part : 0;
}

int32_t oomScoreAdjustment(int32_t pid) {
  std::error_code error;
  const auto text = readFile("/proc/" + std::to_string(pid) + "/oom_score_adj", kMaxFileBytes, error);
  int32_t value = 0;
  if (text) std::from_chars(text->data(), text->data() + text->size(), value);
  return value;
}

/// All pages that processes can have of their own, in memory and swapped out, but for huge ones: who has how
/// many of those is known, and pools that are kept for nobody yet would hide what is counted twice.
uint64_t pagesOfProcesses() {
  const std::string memInfo = readIfThere("/proc/meminfo");
  const auto lineBytes = [&](const char* line) { return memInfoBytes(memInfo, line).value_or(0); };
  return (lineBytes("AnonPages") + remainder(lineBytes("SwapTotal"), lineBytes("SwapFree"))) /
         static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

LinuxKernelMemory::VmallocInfo LinuxKernelMemory::readVmallocInfo() {
  VmallocInfo info{VmallocCallers(static_cast<uint64_t>(sysconf(_SC_PAGESIZE))), {}};
  info.unread =
      readLines(kVmallocInfo, kMaxFileBytes, [&](std::string_view lines) { info.callers.add(lines); });
  return info;
}

void LinuxKernelMemory::takeLook() {
  // Where no thread can be had it is read when it is asked for.
  vmallocInfo_ = std::async(&LinuxKernelMemory::readVmallocInfo);
  priorities_.clear();
  look_ = processTables_.records();
  processTables_.rest();  // the next one is minutes away, and the report takes memory too
  cursor_ = 0;
  std::vector<SharingProcess> processes;
  for (const ProcessRecord& record : *look_) {
    const process_sample& sample = record.sample;
    processes.push_back(
        {sample.pid, sample.program, sample.footprint_pages - sample.huge_pages, sample.resident_pages});
    // Kernel threads and zombies have no memory of their own.
    if (sample.resident_pages == 0 && sample.footprint_pages == 0) continue;
    const bool scored = sample.flags & kSampleHasScore;
    priorities_.push_back({.pid = sample.pid,
                           .priority = scored ? sample.oom_score_adj : oomScoreAdjustment(sample.pid),
                           .user_data = 0,
                           .limit = -1,
                           .state = 0});
  }
  shares_ = forkShares_.read(std::move(processes), pagesOfProcesses());
}

int LinuxKernelMemory::priorityList(priority_list_entry* entries, size_t sizeBytes) {
  if (!entries) takeLook();
  const size_t wholeBytes = priorities_.size() * sizeof(priority_list_entry);
  if (!entries) return static_cast<int>(wholeBytes);
  const size_t filledBytes =
      std::min(wholeBytes, sizeBytes / sizeof(priority_list_entry) * sizeof(priority_list_entry));
  std::memcpy(entries, priorities_.data(), filledBytes);
  return static_cast<int>(filledBytes);
}

std::optional<std::vector<platform::ledger_template_info>> LinuxKernelMemory::ledgerTemplate() {
  std::vector<platform::ledger_template_info> entries(kLedgerEntries);
  entries[kResidentIndex] = {"resident", "physmem", "bytes"};
  entries[kFootprintIndex] = {"phys_footprint", "physmem", "bytes"};
  return entries;
}

bool LinuxKernelMemory::ledger(int32_t pid, platform::ledger_entry_info* entries, size_t count) {
  const ProcessRecord* record = look_ ? findRecord(*look_, pid, cursor_) : nullptr;
  if (!record || count < kLedgerEntries) return false;
  const auto pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  std::fill_n(entries, count, platform::ledger_entry_info{});
  entries[kResidentIndex].balance = static_cast<int64_t>(record->sample.resident_pages * pageSize);
  const auto share = shares_.find(pid);
  const uint64_t pages =
      share == shares_.end() ? record->sample.footprint_pages : share->second + record->sample.huge_pages;
  entries[kFootprintIndex].balance = static_cast<int64_t>(pages * pageSize);
  return true;
}

bool LinuxKernelMemory::wasRead(const char* path, const std::error_code& error) {
  if (!error) {
    refused_.erase(path);
    return true;
  }
  std::string& said = refused_[path];
  if (said != error.message()) {
    said = error.message();
    logDefault("No memory snapshot without %s: %s", path, said.c_str());
  }
  return false;
}

std::optional<std::string> LinuxKernelMemory::readOrSay(const char* path) {
  std::error_code error;
  auto text = readFile(path, kMaxFileBytes, error);
  return wasRead(path, error) ? std::move(text) : std::nullopt;
}

std::optional<KernelMemoryInfo> LinuxKernelMemory::memoryInfo() {
  const auto pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  // The first refusal is enough to say: who may not read the one may seldom read the next.
  const auto slabInfo = readOrSay("/proc/slabinfo");
  if (!slabInfo) return std::nullopt;
  const VmallocInfo vmallocInfo = vmallocInfo_.valid() ? vmallocInfo_.get() : readVmallocInfo();
  const auto memInfo = wasRead(kVmallocInfo, vmallocInfo.unread) ? readOrSay("/proc/meminfo") : std::nullopt;
  const auto zoneInfo = memInfo ? readOrSay("/proc/zoneinfo") : std::nullopt;
  if (!zoneInfo) return std::nullopt;
  const auto caches = parseSlabInfo(*slabInfo, pageSize);
  if (!caches) {
    logDefault("No memory snapshot: /proc/slabinfo is of an unknown version");
    return std::nullopt;
  }

  KernelMemoryInfo info;
  addZones(info, *caches);
  const auto lineBytes = [&](const char* line) { return memInfoBytes(*memInfo, line).value_or(0); };
  for (const auto& [tag, line] : kTagLines) {
    info.sites.push_back(wiredSite(kTag, tag, lineBytes(line)));
  }
  const ZonePages zones = parseZoneInfo(*zoneInfo);
  uint64_t cacheBytes = 0;
  for (const SlabCache& cache : *caches) cacheBytes += cache.sizeBytes;
  info.sites.push_back(wiredSite(kTag, kLargeAllocations, remainder(lineBytes("Slab"), cacheBytes)));
  info.sites.push_back(wiredSite(kTag, kZram, zramBytes()));
  info.sites.push_back(
      wiredSite(kTag, kTcpBuffers, parseTcpPages(readIfThere("/proc/net/sockstat")) * pageSize));
  info.sites.push_back(wiredSite(kTag, kCpuLists, zones.cpuLists * pageSize));
  extensions_.clear();
  for (const NamedSize& module : parseModules(readIfThere("/proc/modules"))) {
    const uint64_t loadTag = extensions_.size() + 1;
    extensions_.emplace(loadTag, module.name);
    info.sites.push_back(wiredSite(kExtension, loadTag, module.sizeBytes));
  }
  callers_.clear();
  for (const NamedSize& caller : vmallocInfo.callers.largestFirst()) {
    info.sites.push_back(wiredSite(kKernelSite, callers_.size(), caller.sizeBytes));
    callers_.push_back(caller.name);
  }
  const uint64_t presentBytes = zones.present * pageSize;
  const uint64_t managedBytes = lineBytes("MemTotal");
  info.sites.push_back(wiredSite(kCounter, kManaged, managedBytes));
  info.sites.push_back(wiredSite(kCounter, kReserved, remainder(presentBytes, managedBytes)));
  info.sites.push_back(wiredSite(kCounter, kLowPages, zones.dma * pageSize));
  info.sites.push_back(wiredSite(kCounter, kKernelMap, lineBytes("VmallocUsed")));
  info.sites.push_back(
      wiredSite(kCounter, kSwapped, remainder(lineBytes("SwapTotal"), lineBytes("SwapFree"))));
  return info;
}

std::optional<std::string> LinuxKernelMemory::symbol(uint64_t address) {
  return address < callers_.size() ? std::optional(callers_[address]) : std::nullopt;
}

}  // namespace quorveld::linux_platform
