#pragma once

#include <future>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/kernel_memory.h"
#include "platform/linux/memory/fork_shares.h"
#include "platform/linux/memory/kernel_memory_text.h"
#include "platform/linux/processes/process_table.h"

namespace quorveld::linux_platform {

/// Where the machine's memory is, as Linux accounts for it (docs/linux-platform.md has the table).
///
/// Zones are slab caches, which only root may see; without them there is no memory information. A refusal is
/// said once, until what was refused is granted.
class LinuxKernelMemory final : public platform::KernelMemory {
 public:
  /// `processTables` answers footprints and scores and must outlive this object.
  explicit LinuxKernelMemory(LinuxProcessTables& processTables) : processTables_(processTables) {}

  /// Every process that has memory of its own, with oom_score_adj as priority and no limit.
  /// Asking for the size takes the look that the next fetch and the ledgers answer from, and has a thread of
  /// its own begin to read what the next memoryInfo will wait for longest.
  int priorityList(platform::priority_list_entry* entries, size_t sizeBytes) override;
  std::optional<std::vector<platform::ledger_template_info>> ledgerTemplate() override;
  bool ledger(int32_t pid, platform::ledger_entry_info* entries, size_t count) override;
  std::optional<platform::KernelMemoryInfo> memoryInfo() override;
  platform::ExtensionMap loadedExtensions() override { return extensions_; }
  std::optional<std::string> symbol(uint64_t address) override;

 private:
  struct VmallocInfo {
    VmallocCallers callers;
    std::error_code unread;
  };
  static VmallocInfo readVmallocInfo();

  void takeLook();
  /// Whether `path` could be read; a line tells why not.
  bool wasRead(const char* path, const std::error_code& error);
  std::optional<std::string> readOrSay(const char* path);

  LinuxProcessTables& processTables_;
  std::shared_ptr<const ProcessRecords> look_;
  size_t cursor_ = 0;  ///< where in `look_` a ledger was last found
  ForkShares forkShares_;
  std::map<int32_t, uint64_t> shares_;  ///< pages, of those processes of `look_` whose share was read
  std::vector<platform::priority_list_entry> priorities_;

  /// The kernel writes all of the file at one read, once for each time that it doubles its buffer: with 1,000
  /// processes that takes as long as everything else of a report.
  std::future<VmallocInfo> vmallocInfo_;

  // Of the last memoryInfo: the kernel hides addresses, so sites are numbered in the order of their size.
  platform::ExtensionMap extensions_;
  std::vector<std::string> callers_;

  std::map<std::string, std::string, std::less<>> refused_;  ///< path to reason, as last said
};

}  // namespace quorveld::linux_platform
