#include "tools/memory/now_text.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/memory/cgroup_tree.h"
#include "tools/memory/memory_text.h"

namespace quorvelctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

/// Terminals narrower than this get fewer columns.
constexpr size_t kWideColumns = 76;
constexpr size_t kNarrowColumns = 50;
constexpr size_t kMostPids = 4;

constexpr std::array<std::pair<const char*, uint64_t NowRow::*>, 8> kFigures = {
    {{"size", &NowRow::ownBytes},
     {"pss", &NowRow::pssBytes},
     {"uss", &NowRow::ussBytes},
     {"swap", &NowRow::swapBytes},
     {"huge", &NowRow::hugeBytes},
     {"shared", &NowRow::sharedBytes},
     {"file", &NowRow::fileBytes},
     {"tables", &NowRow::tableBytes}}};

/// `text` with each line cut off behind `width` characters; nothing is cut at a width of 0.
std::string fitted(const std::string& text, size_t width) {
  if (width == 0) return text;
  std::string out;
  size_t column = 0;
  for (const char c : text) {
    const bool begins = (c & 0xC0) != 0x80;
    if (c == '\n') column = 0;
    if (begins && c != '\n') ++column;
    if (c == '\n' || column <= width) out += c;
  }
  return out;
}

const std::string& keyOf(const NowProcess& process, NowBy by) {
  return by == NowBy::user ? process.user : by == NowBy::cgroup ? process.cgroup : process.name;
}

void addProcess(NowRow& row, const NowProcess& process) {
  row.user = row.count == 0 || row.user == process.user ? process.user : "";
  row.pid = row.count == 0 ? process.pid : 0;
  row.commandLine = row.count == 0 ? process.commandLine : "";
  ++row.count;
  row.ownBytes += process.ownBytes();
  row.isUpperBound = row.isUpperBound || !process.shareBytes;
  if (process.isTwin) return;
  row.pssBytes += process.pssBytes.value_or(0);
  row.ussBytes += process.ussBytes.value_or(0);
  row.swapBytes += process.swapBytes;
  row.hugeBytes += process.hugeBytes;
  row.sharedBytes += process.sharedBytes;
  row.fileBytes += process.fileBytes;
  row.tableBytes += process.tableBytes;
}

std::string changeText(const NowRow& row, const std::vector<NowRow>& before) {
  const auto old = std::find_if(before.begin(), before.end(), [&](const NowRow& other) {
    return other.name == row.name && other.pid == row.pid && other.commandLine == row.commandLine;
  });
  if (old == before.end()) return "new";
  if (row.ownBytes == old->ownBytes) return "";
  return row.ownBytes > old->ownBytes ? "+" + sizeText(row.ownBytes - old->ownBytes)
                                      : "-" + sizeText(old->ownBytes - row.ownBytes);
}

Rows rowsOf(const std::vector<NowRow>& all, const NowLayout& layout, const std::vector<NowRow>* before) {
  const bool wide = layout.width == 0 || layout.width >= kWideColumns;
  const bool middling = layout.width == 0 || layout.width >= kNarrowColumns;
  const bool single = layout.by == NowBy::process;
  Rows rows;
  const auto add = [&](const NowRow* row, const char* heading, const std::string& text) {
    rows.back().push_back(row ? text : heading);
  };
  for (size_t i = 0; i <= all.size() && i <= layout.maxRows; ++i) {
    const NowRow none{};
    const NowRow* row = i == 0 ? nullptr : &all[i - 1];
    const NowRow& value = row ? *row : none;
    rows.emplace_back();
    add(row, "SIZE", (value.isUpperBound && value.ownBytes > 0 ? "<= " : "") + sizeText(value.ownBytes));
    if (before) add(row, "CHANGE", row ? changeText(value, *before) : "");
    if (wide) add(row, "PSS", value.pssBytes == 0 ? "-" : sizeText(value.pssBytes));
    if (wide) add(row, "USS", value.ussBytes == 0 ? "-" : sizeText(value.ussBytes));
    if (middling) add(row, "SHARED", value.sharedBytes == 0 ? "-" : sizeText(value.sharedBytes));
    if (middling) add(row, "SWAP", value.swapBytes == 0 ? "-" : sizeText(value.swapBytes));
    add(row, single ? "PID" : "COUNT", std::to_string(single ? static_cast<size_t>(value.pid) : value.count));
    if (wide && layout.by != NowBy::user) add(row, "USER", printable(value.user.empty() ? "-" : value.user));
    std::string name = printable(value.name);
    if (wide && single && value.commandLine != value.name) name += "  " + printable(value.commandLine);
    add(row, single || layout.by == NowBy::program ? "PROGRAM" : "USER", name);
  }
  return rows;
}

std::string sharedText(const MemoryNow& now, size_t maxRows) {
  Rows rows{{"SIZE", "KIND", "WHO", "NAME"}};
  std::map<int32_t, const std::string*> names;
  for (const NowProcess& process : now.processes) names[process.pid] = &process.name;
  for (const SharedObject& object : now.shared) {
    if (rows.size() > maxRows) break;
    std::string who;
    for (size_t i = 0; i < object.pids.size() && i < kMostPids; ++i) {
      who += (i == 0 ? "" : ", ") + std::to_string(object.pids[i]);
    }
    if (object.pids.size() > kMostPids)
      who += " and " + std::to_string(object.pids.size() - kMostPids) + " more";
    const bool single = object.pids.size() == 1 && names.contains(object.pids[0]);
    if (single) who += " " + printable(*names[object.pids[0]]);
    rows.push_back(
        {sizeText(object.bytes), object.kind, who.empty() ? "nobody" : who, printable(object.name)});
  }
  std::string text;
  if (rows.size() > 1) text += "\nShared memory and pipes, and who has them\n" + table(rows);
  rows = {{"SIZE", "OF", "TMPFS"}};
  for (const TmpfsUse& use : now.tmpfs) {
    if (rows.size() > maxRows) break;
    rows.push_back(
        {sizeText(use.usedBytes), use.sizeBytes == 0 ? "-" : sizeText(use.sizeBytes), printable(use.path)});
  }
  if (rows.size() > 1) text += "\nFiles in memory\n" + table(rows);
  return text;
}

std::string zonesText(const MemoryNow& now) {
  constexpr size_t kMostZones = 5;
  if (now.report.zones.empty()) return "";
  Rows rows{{"SIZE", "KERNEL ZONE"}};
  for (const NamedBytes& zone : now.report.zones) {
    if (rows.size() > kMostZones) break;
    rows.push_back({sizeText(zone.bytes), printable(zone.name)});
  }
  return "\n" + table(rows);
}

}  // namespace

std::vector<std::string> nowSortKeys() {
  std::vector<std::string> keys;
  keys.reserve(kFigures.size() + 1);
  for (const auto& [key, figure] : kFigures) keys.emplace_back(key);
  keys.emplace_back("name");
  return keys;
}

std::vector<NowRow> nowRows(const std::vector<NowProcess>& processes, NowBy by, const std::string& sort) {
  std::map<std::pair<std::string, int32_t>, NowRow> byKey;
  for (const NowProcess& process : processes) {
    NowRow& row = byKey[{keyOf(process, by), by == NowBy::process ? process.pid : 0}];
    row.name = keyOf(process, by);
    addProcess(row, process);
  }
  std::vector<NowRow> rows;
  rows.reserve(byKey.size());
  for (auto& [key, row] : byKey) rows.push_back(std::move(row));
  for (const auto& [key, figure] : kFigures) {
    if (sort != key) continue;
    std::stable_sort(rows.begin(), rows.end(),
                     [order = figure](const NowRow& a, const NowRow& b) { return a.*order > b.*order; });
  }
  return rows;
}

std::string memoryNowText(const MemoryNow& now, const NowLayout& layout, const std::vector<NowRow>* before) {
  std::string text = accountText(now.report);
  text.erase(0, 1);  // the blank line that parts it from others, where there is an account
  for (const NamedBytes& total : now.report.totals) {
    if (total.name == kSwapped && total.bytes > 0) text += "Swapped out: " + sizeText(total.bytes) + ".\n";
  }
  if (layout.by == NowBy::cgroup) {
    text += "\n" + cgroupTreeText(now, layout.maxRows, layout.width != 0 && layout.width < kWideColumns);
  } else {
    const std::vector<NowRow> rows = nowRows(now.processes, layout.by, layout.sort);
    text += "\n" + table(rowsOf(rows, layout, before));
    if (rows.size() > layout.maxRows)
      text += "and " + std::to_string(rows.size() - layout.maxRows) + " more (--top)\n";
  }
  if (now.refused > 0) {
    text += "Not told of " + std::to_string(now.refused) +
            " processes of others: shares, and what they have open.\n";
  }
  return fitted(text + sharedText(now, layout.maxRows) + zonesText(now), layout.width);
}

}  // namespace quorvelctl
