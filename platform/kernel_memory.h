#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quorveld::platform {

/// One process of the priority list.
struct priority_list_entry {
  int32_t pid;
  int32_t priority;
  uint64_t user_data;  ///< bit n set: the process holds the assertion of number n
  int32_t limit;       ///< memory limit, MiB; -1: none, or not told
  uint32_t state;      ///< bit 3: dirty tracking, bit 5: dirty
};
static_assert(sizeof(priority_list_entry) == 24 && offsetof(priority_list_entry, user_data) == 8);

struct ledger_template_info {
  char name[32];
  char group[32];
  char units[32];
};
static_assert(sizeof(ledger_template_info) == 96);

struct ledger_entry_info {
  int64_t balance;  ///< bytes for "phys_footprint"
  int64_t credit;
  int64_t debit;
  uint64_t limit;
  uint64_t refill_period;
  uint64_t last_refill;
};
static_assert(sizeof(ledger_entry_info) == 48);

struct zone_name {
  char name[80];
};
static_assert(sizeof(zone_name) == 80);

struct zone_info {
  uint64_t element_count;
  uint64_t current_size;  ///< bytes
  uint64_t max_size;
  uint64_t element_size;
  uint64_t allocation_size;
  uint64_t pageable;
  uint64_t exhaustible;
  uint64_t collectable;
};
static_assert(sizeof(zone_info) == 64 && offsetof(zone_info, current_size) == 8);

/// One consumer of wired memory. flags & 0xFF: 0 tag, 1 extension, 2 kernel site, 3 counter; flags & 0x300 ==
/// 0x100: wired.
struct memory_info_site {
  uint64_t flags;
  uint64_t site;  ///< tag value, load tag, kernel address or counter value, by kind
  uint64_t size;  ///< bytes
  uint64_t reserved[19];
};
static_assert(sizeof(memory_info_site) == 176);

struct KernelMemoryInfo {
  std::vector<zone_name> zoneNames;
  std::vector<zone_info> zoneInfos;
  std::vector<memory_info_site> sites;
};

/// Load tag ("OSBundleLoadTag") of a loaded kernel extension to its bundle identifier.
using ExtensionMap = std::map<uint64_t, std::string>;

/// What the memory snapshot asks of the kernel. From any thread, but one at a time. Refusals are logged once,
/// with the reason, by whoever refuses.
class KernelMemory {
 public:
  virtual ~KernelMemory() = default;

  /// Bytes of the whole priority list when `entries` is null, else the bytes filled, at most `sizeBytes`;
  /// negative on failure.
  virtual int priorityList(priority_list_entry* entries, size_t sizeBytes) = 0;

  /// The entries that this process's ledger has, in index order; nothing on failure.
  virtual std::optional<std::vector<ledger_template_info>> ledgerTemplate() = 0;

  /// Fills `entries` (room for `count`) with a process's ledger, in the template's order; false when it has
  /// gone or may not be read.
  [[nodiscard]] virtual bool ledger(int32_t pid, ledger_entry_info* entries, size_t count) = 0;

  virtual std::optional<KernelMemoryInfo> memoryInfo() = 0;

  /// Identifiers of the loaded extensions by load tag; empty when the list can't be had.
  virtual ExtensionMap loadedExtensions() = 0;

  /// The kernel symbol at `address`; nothing when it has no name.
  virtual std::optional<std::string> symbol(uint64_t address) = 0;
};

}  // namespace quorveld::platform
