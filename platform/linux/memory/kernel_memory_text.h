#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorveld::linux_platform {

// The kernel's texts about its own memory, as values. Lines that don't look as expected are passed over; text
// that is no such file at all yields nothing. Sizes in bytes unless said otherwise.

struct SlabCache {
  std::string name;
  uint64_t objectCount;
  uint64_t objectBytes;
  uint64_t sizeBytes;  ///< what its slabs take
};

/// /proc/slabinfo, version 2.1 (slabinfo(5)); nothing without its header line.
std::optional<std::vector<SlabCache>> parseSlabInfo(std::string_view text, uint64_t pageSizeBytes);

struct NamedSize {
  std::string name;
  uint64_t sizeBytes;
};

/// The value of one line of /proc/meminfo (proc(5)), given there in kB.
std::optional<uint64_t> memInfoBytes(std::string_view text, std::string_view key);

/// /proc/modules: each loaded module with its size.
std::vector<NamedSize> parseModules(std::string_view text);

/// /proc/vmallocinfo, which has a line for each thread's kernel stack, as it is read: allocated pages summed
/// by the function that asked for them. Mappings of devices and address space without pages are left out.
class VmallocCallers {
 public:
  explicit VmallocCallers(uint64_t pageSizeBytes) : pageSizeBytes_(pageSizeBytes) {}

  /// Takes whole lines.
  void add(std::string_view lines);
  std::vector<NamedSize> largestFirst() const;

 private:
  uint64_t pageSizeBytes_;
  std::map<std::string, uint64_t, std::less<>> bytesByCaller_;
};

/// /proc/zoneinfo, in pages, over all nodes.
struct ZonePages {
  uint64_t present = 0;
  uint64_t dma = 0;       ///< managed, in the zones for devices that can't reach all memory
  uint64_t cpuLists = 0;  ///< free, but kept in lists for each CPU and not counted as free
};
ZonePages parseZoneInfo(std::string_view text);

/// /proc/net/sockstat: pages of memory that TCP's buffers take, in all network namespaces.
uint64_t parseTcpPages(std::string_view text);

/// mm_stat of a zram device: all memory that it takes (Documentation/admin-guide/blockdev/zram.rst).
uint64_t parseZramBytes(std::string_view text);

}  // namespace quorveld::linux_platform
