#include "platform/linux/memory/host_statistics.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>

#include "platform/linux/processes/procfs_parse.h"
#include "platform/linux/processes/procfs_reader.h"

namespace quorveld::linux_platform {

namespace {

/// The value of the line that begins with `key` and `separator`, in a text of such lines; nothing when there
/// is none.
std::optional<uint64_t> lineValue(std::string_view text, std::string_view key, char separator) {
  for (size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
    const size_t end = at + key.size();
    const bool startsLine = at == 0 || text[at - 1] == '\n';
    if (startsLine && end < text.size() && text[end] == separator) return leadingNumber(text.substr(end + 1));
  }
  return std::nullopt;
}

uint64_t difference(uint64_t whole, uint64_t part) {
  return whole > part ? whole - part : 0;
}

uint32_t narrow(uint64_t pages) {
  return static_cast<uint32_t>(std::min<uint64_t>(pages, std::numeric_limits<uint32_t>::max()));
}

}  // namespace

std::optional<platform::vm_statistics64> parseVmStatistics(std::string_view vmstat, std::string_view meminfo,
                                                           uint64_t pageSizeBytes) {
  const uint64_t pageKb = pageSizeBytes / 1024;
  const auto counted = [&](std::string_view key) { return lineValue(vmstat, key, ' ').value_or(0); };
  const auto memory = [&](std::string_view key) { return lineValue(meminfo, key, ':').value_or(0) / pageKb; };
  if (vmstat.empty() || !lineValue(meminfo, "MemFree", ':')) return std::nullopt;

  platform::vm_statistics64 vm{};
  vm.free_count = narrow(memory("MemFree"));
  vm.active_count = narrow(counted("nr_active_anon") + counted("nr_active_file"));
  vm.inactive_count = narrow(counted("nr_inactive_anon") + counted("nr_inactive_file"));
  vm.wire_count =
      narrow(counted("nr_unevictable") + counted("nr_slab_unreclaimable") + counted("nr_page_table_pages") +
             counted("nr_sec_page_table_pages") + memory("VmallocUsed") + memory("Percpu"));
  vm.reactivations = counted("pgactivate");
  vm.pageins = counted("pgpgin") / pageKb;
  vm.pageouts = counted("pgpgout") / pageKb;
  vm.faults = counted("pgfault");
  vm.purges = counted("pglazyfreed");
  vm.decompressions = counted("zswpin");
  vm.compressions = counted("zswpout");
  vm.swapins = counted("pswpin");
  vm.swapouts = counted("pswpout");
  vm.compressor_page_count = narrow(memory("Zswap"));
  vm.external_page_count =
      narrow(difference(counted("nr_file_pages"), counted("nr_shmem") + counted("nr_swapcached")));
  vm.internal_page_count = narrow(counted("nr_anon_pages") + counted("nr_shmem"));
  vm.total_uncompressed_pages_in_compressor = memory("Zswapped");
  return vm;
}

bool LinuxHostStatistics::vmStatistics(platform::vm_statistics64* statistics) {
  ProcfsReader proc(procDirectory_);
  if (!proc) return false;
  const std::string vmstat(proc.read("vmstat"));
  const std::optional<platform::vm_statistics64> vm =
      parseVmStatistics(vmstat, proc.read("meminfo"), pageSizeBytes());
  if (vm) *statistics = *vm;
  return vm.has_value();
}

uint64_t LinuxHostStatistics::pageSizeBytes() {
  return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace quorveld::linux_platform
