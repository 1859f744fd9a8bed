#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "base/text.h"
#include "memsnapshot/json_text.h"
#include "memsnapshot/names.h"
#include "memsnapshot/report_sections.h"
#include "platform/kernel.h"
#include "platform/kernel_memory.h"
#include "platform/platform.h"
#include "platform/vm_statistics.h"

namespace quorveld {

namespace {

using platform::priority_list_entry;

constexpr uint32_t kStateDirtyTracking = 1u << 3;
constexpr uint32_t kStateDirty = 1u << 5;

/// Where a ledger keeps the footprint. Index 0 means that it isn't known: then the kernel is asked again.
struct FootprintLedger {
  size_t index = 0;
  size_t entries = 0;
};

bool findFootprintLedger(FootprintLedger& ledger) {
  if (ledger.index != 0) return true;
  const auto entries = platform::current().kernelMemory.ledgerTemplate();
  if (!entries) return false;
  for (size_t i = 0; i < entries->size(); ++i) {
    const platform::ledger_template_info& entry = (*entries)[i];
    if (std::strncmp(entry.name, "phys_footprint", sizeof(entry.name)) != 0) continue;
    ledger = {i, entries->size()};
    return true;
  }
  return false;
}

/// Twice the size that the kernel names, for the processes born before it fills the list.
std::vector<priority_list_entry> priorityList() {
  platform::KernelMemory& kernel = platform::current().kernelMemory;
  const int sizeBytes = kernel.priorityList(nullptr, 0);
  if (sizeBytes < static_cast<int>(sizeof(priority_list_entry))) return {};
  std::vector<priority_list_entry> list(2 * static_cast<size_t>(sizeBytes) / sizeof(priority_list_entry));
  const int filledBytes = kernel.priorityList(list.data(), list.size() * sizeof(priority_list_entry));
  list.resize(filledBytes < 0 ? 0 : static_cast<size_t>(filledBytes) / sizeof(priority_list_entry));
  return list;
}

std::string nameOf(int32_t pid) {
  const std::optional<std::string> path = platform::current().kernel.executablePath(pid);
  if (!path) return "No_Name";
  const size_t slash = path->find_last_of('/');
  if (slash == std::string::npos) return formatted("UnknownProcess_%d", pid);
  return slash + 1 == path->size() ? "No_Name" : path->substr(slash + 1);
}

const char* dirtyText(uint32_t state) {
  if (!(state & kStateDirtyTracking)) return "-";
  return state & kStateDirty ? "Y" : "N";
}

void appendAssertions(std::string& report, uint64_t reasons) {
  report += ", \"Assertions\":[";
  Separator comma(",");
  for (unsigned bit = 0; bit < 64; ++bit) {
    if (!(reasons >> bit & 1)) continue;
    comma.next(report);
    report += assertionName(bit);
  }
  report += "]";
}

}  // namespace

bool appendProcesses(std::string& report) {
  static FootprintLedger ledger;
  if (!findFootprintLedger(ledger)) return false;

  platform::KernelMemory& kernel = platform::current().kernelMemory;
  const auto pageSize = static_cast<int64_t>(platform::current().hostStatistics.pageSizeBytes());
  std::vector<platform::ledger_entry_info> balances(ledger.entries);
  report += "\"Processes\" :\n[\n";
  Separator comma(",\n");
  for (const priority_list_entry& process : priorityList()) {
    if (!kernel.ledger(process.pid, balances.data(), balances.size())) continue;
    // Divided first, then narrowed: pages of a footprint beyond 4 GiB still fit.
    const auto footprintPages = static_cast<int32_t>(balances[ledger.index].balance / pageSize);
    comma.next(report);
    report += "{\"ProcessName\":\"";
    appendEscaped(report, nameOf(process.pid));
    appendFormatted(report, "\", \"Priority\":%d, \"Footprint\":%d, \"Dirty\":\"%s\"", process.priority,
                    footprintPages, dirtyText(process.state));
    if (process.user_data != 0) appendAssertions(report, process.user_data);
    report += "}";
  }
  report += "],\n";
  return true;
}

}  // namespace quorveld
