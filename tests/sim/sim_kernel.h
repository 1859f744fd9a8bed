#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/kernel.h"
#include "platform/kernel_memory.h"
#include "platform/process_table.h"
#include "platform/vm_statistics.h"
#include "tests/sim/fault_plan.h"

namespace quorveld::sim {

/// One process as the kernel tells of it.
struct SimProcess {
  int32_t pid = 0;
  std::optional<std::string> name;
  platform::rusage_info_v3 usage{};
};

/// What the kernel knows, as a scenario scripts it: every question is answered from the public fields as they
/// are when it is asked.
class SimKernel final : public platform::Kernel,
                        public platform::ProcessTables,
                        public platform::HostStatistics,
                        public platform::KernelMemory {
 public:
  explicit SimKernel(FaultPlan& faults) : faults_(faults) {}

  std::optional<std::string> executablePath(int32_t pid) override;
  std::optional<std::string> processName(int32_t pid) override;
  void prepare() override { ++prepares; }
  void rest() override { ++rests; }
  std::unique_ptr<platform::ProcessTable> look() override;
  bool vmStatistics(platform::vm_statistics64* statistics) override;
  uint64_t pageSizeBytes() override { return pageSize; }
  int priorityList(platform::priority_list_entry* entries, size_t sizeBytes) override;
  std::optional<std::vector<platform::ledger_template_info>> ledgerTemplate() override;
  bool ledger(int32_t pid, platform::ledger_entry_info* entries, size_t count) override;
  std::optional<platform::KernelMemoryInfo> memoryInfo() override;
  platform::ExtensionMap loadedExtensions() override;
  std::optional<std::string> symbol(uint64_t address) override;

  std::map<int32_t, std::string> executablePaths;
  std::map<int32_t, std::string> processNames;
  std::vector<SimProcess> processes;  ///< in the order in which `list` gives them
  int prepares = 0;
  int rests = 0;
  int looks = 0;
  platform::vm_statistics64 statistics{};
  uint64_t pageSize = 4096;
  std::vector<platform::priority_list_entry> priorities;
  std::vector<platform::ledger_template_info> ledgerNames;
  std::map<int32_t, std::vector<platform::ledger_entry_info>> ledgers;
  platform::KernelMemoryInfo memory;
  platform::ExtensionMap extensions;
  std::map<uint64_t, std::string> symbols;

 private:
  FaultPlan& faults_;
};

}  // namespace quorveld::sim
