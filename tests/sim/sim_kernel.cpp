#include "tests/sim/sim_kernel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

namespace quorveld::sim {

namespace {

class SimProcessTable final : public platform::ProcessTable {
 public:
  SimProcessTable(std::vector<SimProcess> processes, FaultPlan& faults)
      : processes_(std::move(processes)), faults_(faults) {
    for (const SimProcess& process : processes_) byPid_.try_emplace(process.pid, &process);
  }

  int listBytes() override {
    return faults_.fails(Op::processListBytes) ? 0 : static_cast<int>(4 * processes_.size());
  }

  int list(int32_t* pids, int sizeBytes) override {
    if (faults_.fails(Op::processList)) return 0;
    const size_t count = std::min(processes_.size(), static_cast<size_t>(sizeBytes) / 4);
    for (size_t i = 0; i < count; ++i) pids[i] = processes_[i].pid;
    return static_cast<int>(4 * count);
  }

  int usage(int32_t pid, platform::rusage_info_v3* usage) override {
    if (const std::error_code error = faults_.take(Op::processUsage)) return error.value();
    const SimProcess* process = find(pid);
    if (!process) return ESRCH;
    *usage = process->usage;
    return 0;
  }

  int name(int32_t pid, char* buffer, size_t sizeBytes) override {
    const SimProcess* process = find(pid);
    if (faults_.fails(Op::processName) || !process || !process->name || sizeBytes == 0) {
      errno = ESRCH;
      return 0;
    }
    const size_t length = std::min(process->name->size(), sizeBytes - 1);
    std::memcpy(buffer, process->name->data(), length);
    buffer[length] = '\0';
    return static_cast<int>(length);
  }

 private:
  const SimProcess* find(int32_t pid) const {
    const auto process = byPid_.find(pid);
    return process == byPid_.end() ? nullptr : process->second;
  }

  const std::vector<SimProcess> processes_;
  std::unordered_map<int32_t, const SimProcess*> byPid_;
  FaultPlan& faults_;
};

}  // namespace

std::optional<std::string> SimKernel::executablePath(int32_t pid) {
  const auto path = executablePaths.find(pid);
  if (faults_.fails(Op::executablePath) || path == executablePaths.end()) return std::nullopt;
  return path->second;
}

std::optional<std::string> SimKernel::processName(int32_t pid) {
  const auto name = processNames.find(pid);
  return name == processNames.end() ? std::nullopt : std::optional(name->second);
}

std::unique_ptr<platform::ProcessTable> SimKernel::look() {
  ++looks;
  return std::make_unique<SimProcessTable>(processes, faults_);
}

bool SimKernel::vmStatistics(platform::vm_statistics64* filled) {
  if (faults_.fails(Op::vmStatistics)) return false;
  *filled = statistics;
  return true;
}

int SimKernel::priorityList(platform::priority_list_entry* entries, size_t sizeBytes) {
  if (faults_.fails(Op::priorityList)) return -1;
  const size_t whole = priorities.size() * sizeof *entries;
  if (!entries) return static_cast<int>(whole);
  const size_t filled = std::min(whole, sizeBytes / sizeof *entries * sizeof *entries);
  if (filled > 0) std::memcpy(entries, priorities.data(), filled);
  return static_cast<int>(filled);
}

std::optional<std::vector<platform::ledger_template_info>> SimKernel::ledgerTemplate() {
  if (faults_.fails(Op::ledgerTemplate)) return std::nullopt;
  return ledgerNames;
}

bool SimKernel::ledger(int32_t pid, platform::ledger_entry_info* entries, size_t count) {
  const auto ledger = ledgers.find(pid);
  if (faults_.fails(Op::ledger) || ledger == ledgers.end()) return false;
  std::copy_n(ledger->second.begin(), std::min(count, ledger->second.size()), entries);
  return true;
}

std::optional<platform::KernelMemoryInfo> SimKernel::memoryInfo() {
  if (faults_.fails(Op::memoryInfo)) return std::nullopt;
  return memory;
}

platform::ExtensionMap SimKernel::loadedExtensions() {
  return faults_.fails(Op::loadedExtensions) ? platform::ExtensionMap() : extensions;
}

std::optional<std::string> SimKernel::symbol(uint64_t address) {
  const auto known = symbols.find(address);
  return known == symbols.end() ? std::nullopt : std::optional(known->second);
}

}  // namespace quorveld::sim
