#include "tools/report/report_list.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

/// Of a demangled function's name the rest says little, and tears a table apart.
constexpr size_t kMaxCulpritBytes = 48;

using Rows = std::vector<std::vector<std::string>>;

std::string localTime(time_t time) {
  tm parts{};
  char text[32] = "";
  if (localtime_r(&time, &parts)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string textOrDash(const std::string& text) {
  return text.empty() ? "-" : printable(text);
}

std::string causeOf(const ReportEntry& entry) {
  return entry.metadata.verdict ? entry.metadata.verdict->cause : std::string();
}

std::string culpritCell(const ReportEntry& entry) {
  return textOrDash(shortened(culpritOf(entry.metadata), kMaxCulpritBytes));
}

/// A clock that went wrong costs nobody time.
double lostMs(const ReportEntry& entry) {
  return std::max(entry.metadata.header.durationMs(), 0.0);
}

std::string joined(const std::vector<std::string>& texts) {
  std::string line;
  for (const std::string& text : texts) line += (line.empty() ? "" : ", ") + text;
  return line;
}

}  // namespace

bool ReportFilter::takes(const ReportEntry& entry) const {
  return entry.writtenAt >= since && (cause.empty() || causeOf(entry) == cause) &&
         (app.empty() || (entry.problem.empty() && entry.metadata.header.processName() == app));
}

const std::vector<std::string>& reportSortKeys() {
  static const std::vector<std::string> kKeys = {"date", "duration", "size", "cause", "app", "culprit"};
  return kKeys;
}

void sortReports(std::vector<ReportEntry>& entries, const std::string& key) {
  // What comes first of two reports; those of one key go by date.
  const auto by = [&](auto keyOf) {
    std::sort(entries.begin(), entries.end(), [&](const ReportEntry& a, const ReportEntry& b) {
      return std::tuple(keyOf(a), a.writtenAt, a.fileName) < std::tuple(keyOf(b), b.writtenAt, b.fileName);
    });
  };
  const auto byText = [&](auto textOf) {
    by([&](const ReportEntry& entry) {
      const std::string text = textOf(entry);
      return std::pair(text.empty(), text);
    });
  };
  if (key == "date") by([](const ReportEntry&) { return 0; });
  if (key == "duration") by([](const ReportEntry& entry) { return -entry.metadata.header.durationMs(); });
  if (key == "size") by([](const ReportEntry& entry) { return -static_cast<double>(entry.sizeBytes); });
  if (key == "cause") byText(causeOf);
  if (key == "app") byText([](const ReportEntry& entry) { return entry.metadata.header.processName(); });
  if (key == "culprit") byText([](const ReportEntry& entry) { return culpritOf(entry.metadata); });
}

std::string reportTable(const std::vector<ReportEntry>& entries) {
  Rows rows{{"DATE", "APP", "DURATION", "CAUSE", "CULPRIT", "KIND", "NAME", "SIZE", "FILE"}};
  for (const ReportEntry& entry : entries) {
    const ReportHeader& header = entry.metadata.header;
    const std::string date = localTime(entry.writtenAt), size = sizeText(entry.sizeBytes);
    if (entry.problem.empty()) {
      rows.push_back({date, textOrDash(header.processName()), durationText(header.durationMs()),
                      textOrDash(causeOf(entry)), culpritCell(entry), header.kind(),
                      textOrDash(header.serviceName), size, printable(entry.fileName)});
    } else {
      rows.push_back({date, "-", "-", "-", "-", "unreadable", "-", size, printable(entry.fileName)});
    }
  }
  return table(rows);
}

std::vector<ReportGroup> reportGroups(const std::vector<ReportEntry>& entries) {
  std::map<std::string, ReportGroup> bySignature;
  std::map<std::string, std::set<std::string>> apps;
  for (const ReportEntry& entry : entries) {
    const std::string& signature = entry.metadata.signature;
    if (signature.empty()) continue;
    ReportGroup& group = bySignature[signature];
    ++group.reports;
    group.totalMs += lostMs(entry);
    if (!group.longest || lostMs(entry) > lostMs(*group.longest)) group.longest = &entry;
    apps[signature].insert(entry.metadata.header.processName());
  }
  std::vector<ReportGroup> groups;
  for (auto& [signature, group] : bySignature) {
    group.apps.assign(apps[signature].begin(), apps[signature].end());
    groups.push_back(std::move(group));
  }
  std::sort(groups.begin(), groups.end(), [](const ReportGroup& a, const ReportGroup& b) {
    return std::tie(b.totalMs, a.longest->metadata.signature) <
           std::tie(a.totalMs, b.longest->metadata.signature);
  });
  return groups;
}

std::string groupTable(const std::vector<ReportGroup>& groups) {
  Rows rows{{"TIME LOST", "REPORTS", "LONGEST", "CAUSE", "APPS", "CULPRIT", "SIGNATURE", "FILE", "SENTENCE"}};
  for (const ReportGroup& group : groups) {
    const ReportEntry& entry = *group.longest;
    const ReportMetadata& metadata = entry.metadata;
    rows.push_back({durationText(group.totalMs), std::to_string(group.reports), durationText(lostMs(entry)),
                    textOrDash(causeOf(entry)), textOrDash(joined(group.apps)), culpritCell(entry),
                    metadata.signature, printable(entry.fileName),
                    textOrDash(metadata.verdict ? metadata.verdict->sentence : std::string())});
  }
  return table(rows);
}

}  // namespace quorvelctl
