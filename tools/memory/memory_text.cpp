#include "tools/memory/memory_text.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "tools/base/table.h"
#include "tools/base/units.h"

namespace quorvelctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

std::string signedSize(int64_t bytes, const char* plus) {
  return bytes < 0 ? "-" + sizeText(static_cast<uint64_t>(-bytes))
                   : plus + sizeText(static_cast<uint64_t>(bytes));
}

std::string percentText(int64_t part, uint64_t whole) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%",
                whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return text;
}

std::string section(const std::string& title, const Rows& rows) {
  return "\n" + title + "\n" + table(rows);
}

/// What a table of `shown` of `count` rows says below itself.
std::string restText(size_t shown, size_t count, const std::string& rest) {
  return shown >= count ? "" : "and " + std::to_string(count - shown) + " more, " + rest + " (--all)\n";
}

std::string headText(const MemoryReport& report) {
  Rows rows{{"os", printable(report.osVersion)},
            {"model", printable(report.model)},
            {"page size", sizeText(report.pageSizeBytes)}};
  if (!report.vmError.empty()) rows.back().back() += " (assumed)";
  return "memory report of " + timeText(report.timestamp) + "\n\n" + table(rows);
}

/// What is likely behind memory that nothing accounts for, where the report has a trace of it.
std::string likelyText(const MemoryReport& report, uint64_t bytes) {
  // A buffer of a socket has a head in such a zone, of at least this part of its size; a pipe's pages are
  // noted in an object of this one, 16 of them at the most if nobody has asked for more.
  constexpr uint64_t kHeadPart = 128;
  constexpr uint64_t kPipePart = 64;
  uint64_t socketHeads = 0;
  uint64_t pipeNotes = 0;
  for (const NamedBytes& zone : report.zones) {
    if (zone.name.starts_with("skbuff_")) socketHeads += zone.bytes;
    if (zone.name == "kmalloc-cg-1k") pipeNotes += zone.bytes;
  }
  std::string likely;
  if (socketHeads > bytes / kHeadPart) {
    likely += "buffers of sockets (" + sizeText(socketHeads) + " of zones skbuff_...), ";
  }
  if (pipeNotes > bytes / kPipePart) likely += "pipes (" + sizeText(pipeNotes) + " of zone kmalloc-cg-1k), ";
  return "Likely behind it: " + likely + "pages that a driver took for itself.\n";
}

std::string countersText(const MemoryReport& report) {
  if (!report.vmError.empty()) return "\nNo VM counters: " + printable(report.vmError) + "\n";
  Rows rows{{"COUNTER", "VALUE"}};
  std::string zero;
  for (const auto& [name, value] : report.counters) {
    if (value == 0) {
      zero += (zero.empty() ? "" : ", ") + printable(name);
    } else {
      rows.push_back({printable(name),
                      countsPages(name) ? sizeText(value * report.pageSizeBytes) : std::to_string(value)});
    }
  }
  return section("VM counters", rows) + (zero.empty() ? "" : "at 0: " + zero + "\n");
}

/// Dirtiness and assertions are worth a column only where a system knows them.
Rows processRows(const MemoryReport& report, size_t maxRows) {
  const std::vector<MemoryProcess>& processes = report.processes;
  const bool bounds = hasUpperBounds(report);
  std::map<std::string_view, int> counts;
  for (const MemoryProcess& process : processes) ++counts[process.name];
  const bool tracked = std::any_of(processes.begin(), processes.end(),
                                   [](const MemoryProcess& process) { return process.dirty != "-"; });
  const bool asserted = std::any_of(processes.begin(), processes.end(),
                                    [](const MemoryProcess& process) { return !process.assertions.empty(); });
  Rows rows{{"FOOTPRINT", "PRIORITY"}};
  if (tracked) rows.back().push_back("DIRTY");
  if (asserted) rows.back().push_back("ASSERTIONS");
  rows.back().push_back("PROCESS");
  for (size_t i = 0; i < processes.size() && i < maxRows; ++i) {
    const MemoryProcess& process = processes[i];
    const char* bound = bounds && counts[process.name] > 1 ? "<= " : "";
    rows.push_back({bound + sizeText(process.footprintBytes), std::to_string(process.priority)});
    if (tracked) rows.back().push_back(printable(process.dirty));
    std::string names = process.assertions.empty() ? "-" : "";
    for (const std::string& name : process.assertions) names += (names.empty() ? "" : ",") + name;
    if (asserted) rows.back().push_back(printable(names));
    rows.back().push_back(printable(process.name));
  }
  return rows;
}

std::string processesText(const MemoryReport& report, size_t maxRows) {
  const std::vector<MemoryProcess>& processes = report.processes;
  uint64_t sumBytes = 0;
  uint64_t restBytes = 0;
  for (size_t i = 0; i < processes.size(); ++i) {
    sumBytes += processes[i].footprintBytes;
    if (i >= maxRows) restBytes += processes[i].footprintBytes;
  }
  std::string title = "Processes: " + std::to_string(processes.size()) + ", together " + sizeText(sumBytes);
  if (hasUpperBounds(report)) {
    title += ", more than the " + sizeText(processesBytes(report).value_or(0)) +
             " that they have: forks hold pages together (<=)";
  }
  return section(title, processRows(report, maxRows)) +
         restText(maxRows, processes.size(), sizeText(restBytes));
}

std::string listText(const std::string& title, const char* heading, const std::vector<NamedBytes>& entries,
                     size_t maxRows) {
  uint64_t rest = 0;
  Rows rows{{"SIZE", heading}};
  for (const NamedBytes& entry : entries) {
    if (rows.size() > maxRows) {
      rest += entry.bytes;
    } else {
      rows.push_back({sizeText(entry.bytes), printable(entry.name)});
    }
  }
  return section(title, rows) + restText(rows.size() - 1, entries.size(), sizeText(rest));
}

std::string changesText(const char* title, const char* heading, const std::vector<MemoryChange>& changes,
                        size_t maxRows) {
  if (changes.empty()) return std::string("\n") + title + ": no change\n";
  // Counts are worth a column only where entries come and go.
  const bool counted = std::any_of(changes.begin(), changes.end(), [](const MemoryChange& change) {
    return change.oldCount != 1 || change.newCount != 1;
  });
  int64_t rest = 0;
  Rows rows{{"CHANGE", "OLD", "NEW", heading}};
  if (counted) rows.front().insert(rows.front().begin() + 3, "COUNT");
  for (const MemoryChange& change : changes) {
    if (rows.size() > maxRows) {
      rest += change.bytes();
      continue;
    }
    const bool same = change.oldCount == change.newCount;
    rows.push_back({signedSize(change.bytes(), "+"), signedSize(change.oldBytes, ""),
                    signedSize(change.newBytes, ""), printable(change.name)});
    if (counted) {
      rows.back().insert(rows.back().begin() + 3, (same ? "" : std::to_string(change.oldCount) + " -> ") +
                                                      std::to_string(change.newCount));
    }
  }
  return section(title, rows) + restText(rows.size() - 1, changes.size(), signedSize(rest, "+"));
}

std::string counterChangesText(const MemoryReport& newer, const std::vector<CounterChange>& changes) {
  if (changes.empty()) return "\nVM counters: no change\n";
  Rows rows{{"CHANGE", "OLD", "NEW", "COUNTER"}};
  for (const CounterChange& change : changes) {
    if (countsPages(change.name)) {
      const auto bytes = static_cast<int64_t>(newer.pageSizeBytes);
      rows.push_back({signedSize(change.change() * bytes, "+"),
                      sizeText(change.oldValue * newer.pageSizeBytes),
                      sizeText(change.newValue * newer.pageSizeBytes), printable(change.name)});
    } else {
      rows.push_back({(change.change() < 0 ? "" : "+") + std::to_string(change.change()),
                      std::to_string(change.oldValue), std::to_string(change.newValue),
                      printable(change.name)});
    }
  }
  return section("VM counters", rows);
}

}  // namespace

std::string timeText(const std::string& timestamp) {
  if (timestamp.size() != 17) return printable(timestamp);
  return printable(timestamp.substr(0, 10) + " " + timestamp.substr(11, 2) + ":" + timestamp.substr(13, 2) +
                   ":" + timestamp.substr(15));
}

std::string doubtText(const MemoryReport& report, const MemoryAccount& account) {
  if (account.unaccountedBytes >= 0) {
    return account.isOff() ? likelyText(report, static_cast<uint64_t>(account.unaccountedBytes)) : "";
  }
  const std::string excess = sizeText(static_cast<uint64_t>(-account.unaccountedBytes));
  if (account.isOff())
    return "The figures contradict each other: together they are " + excess + " more than that.\n";
  return "They were read one after the other, and are " + excess + " more than that.\n";
}

std::string accountText(const MemoryReport& report) {
  const std::optional<MemoryAccount> account = accountOf(report);
  if (!account) return "";
  Rows rows{{"SIZE", "SHARE", "WHAT"}};
  for (const NamedBytes& part : account->parts) {
    if (part.bytes == 0) break;
    rows.push_back({sizeText(part.bytes), percentText(static_cast<int64_t>(part.bytes), account->totalBytes),
                    part.name});
  }
  const int64_t rest = std::max<int64_t>(account->unaccountedBytes, 0);
  rows.push_back(
      {sizeText(static_cast<uint64_t>(rest)), percentText(rest, account->totalBytes), kUnaccounted});
  return section("Where the memory is: " + sizeText(account->totalBytes) + " that the kernel hands out",
                 rows) +
         doubtText(report, *account);
}

std::string memoryText(const MemoryReport& report, size_t maxRows) {
  return headText(report) + accountText(report) + countersText(report) + processesText(report, maxRows) +
         (report.uses.empty() ? "" : listText("Other uses of memory", "USE", report.uses, maxRows)) +
         listText("Kernel zones: " + std::to_string(report.zones.size()) + ", together " +
                      sizeText(sumOf(report.zones)),
                  "ZONE", report.zones, maxRows) +
         listText("Kernel consumers, which overlap: tags, modules, call sites", "CONSUMER", report.consumers,
                  maxRows) +
         listText("Kernel totals, each over many consumers", "TOTAL", report.totals, maxRows);
}

std::string memoryDiffText(const MemoryReport& older, const MemoryReport& newer, size_t maxRows) {
  const MemoryDiff diff = diffOf(older, newer);
  return "from " + timeText(older.timestamp) + " to " + timeText(newer.timestamp) + "\n" +
         (diff.account.empty() ? "" : changesText("Where the memory is", "WHAT", diff.account, maxRows)) +
         changesText("Processes, those of one name together", "PROCESS", diff.processes, maxRows) +
         changesText("Kernel zones", "ZONE", diff.zones, maxRows) +
         changesText("Other uses of memory", "USE", diff.uses, maxRows) +
         changesText("Kernel consumers", "CONSUMER", diff.consumers, maxRows) +
         changesText("Kernel totals", "TOTAL", diff.totals, maxRows) +
         counterChangesText(newer, diff.counters);
}

}  // namespace quorvelctl
