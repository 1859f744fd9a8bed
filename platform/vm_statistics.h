#pragma once

#include <cstddef>
#include <cstdint>

namespace quorveld::platform {

/// The host's virtual-memory statistics, 64-bit flavor, all counts in pages.
struct vm_statistics64 {
  uint32_t free_count;
  uint32_t active_count;
  uint32_t inactive_count;
  uint32_t wire_count;
  uint64_t zero_fill_count;
  uint64_t reactivations;
  uint64_t pageins;
  uint64_t pageouts;
  uint64_t faults;
  uint64_t cow_faults;
  uint64_t lookups;
  uint64_t hits;
  uint64_t purges;
  uint32_t purgeable_count;
  uint32_t speculative_count;
  uint64_t decompressions;
  uint64_t compressions;
  uint64_t swapins;
  uint64_t swapouts;
  uint32_t compressor_page_count;
  uint32_t throttled_count;
  uint32_t external_page_count;
  uint32_t internal_page_count;
  uint64_t total_uncompressed_pages_in_compressor;
};
static_assert(sizeof(vm_statistics64) == 152);  // 38 words of 32 bits
static_assert(offsetof(vm_statistics64, purgeable_count) == 88 &&
              offsetof(vm_statistics64, compressor_page_count) == 128);

/// Host-wide figures. From any thread.
class HostStatistics {
 public:
  virtual ~HostStatistics() = default;

  /// Fills `statistics`; false when the kernel doesn't tell.
  [[nodiscard]] virtual bool vmStatistics(vm_statistics64* statistics) = 0;

  virtual uint64_t pageSizeBytes() = 0;
};

}  // namespace quorveld::platform
