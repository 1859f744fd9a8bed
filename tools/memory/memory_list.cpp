#include "tools/memory/memory_list.h"

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/memory/memory_series.h"
#include "tools/memory/memory_text.h"

namespace quorvelctl {

MemoryListEntry listEntryOf(const MemoryReport& report) {
  MemoryListEntry entry;
  entry.timestamp = report.timestamp;
  entry.faults = report.counter("faults");
  if (const auto account = accountOf(report)) {
    entry.totalBytes = account->totalBytes;
    entry.freeBytes = report.counter("free_count").value_or(0) * report.pageSizeBytes;
  }
  if (!report.processes.empty()) {
    entry.biggest = report.processes.front().name;
    entry.biggestBytes = report.processes.front().footprintBytes;
  }
  return entry;
}

void tellBoots(std::vector<MemoryListEntry>& entries) {
  std::vector<std::optional<uint64_t>> faults;
  faults.reserve(entries.size());
  for (const MemoryListEntry& entry : entries) faults.push_back(entry.faults);
  const std::vector<size_t> starts = startsOf(faults);
  for (size_t i = 0; i < entries.size(); ++i) {
    entries[i].boot = static_cast<int64_t>(starts[i]) - static_cast<int64_t>(starts.back());
  }
}

std::string memoryListText(const std::vector<MemoryListEntry>& entries, size_t older) {
  std::vector<std::vector<std::string>> rows{
      {"TIME", "BOOT", "SIZE", "MEMORY", "FREE", "BIGGEST PROCESS", "REPORT"}};
  const auto known = [](const std::optional<uint64_t>& bytes) { return bytes ? sizeText(*bytes) : "?"; };
  for (const MemoryListEntry& entry : entries) {
    rows.push_back(
        {timeText(entry.timestamp), std::to_string(entry.boot), sizeText(entry.fileBytes),
         known(entry.totalBytes), known(entry.freeBytes),
         entry.biggest.empty() ? "-" : sizeText(entry.biggestBytes) + " " + printable(entry.biggest),
         printable(entry.fileName)});
  }
  return table(rows) + (older == 0 ? "" : "and " + std::to_string(older) + " older (--all)\n");
}

}  // namespace quorvelctl
