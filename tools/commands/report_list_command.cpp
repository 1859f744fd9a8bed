#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/base/units.h"
#include "tools/commands/commands.h"
#include "tools/commands/spool.h"
#include "tools/report/report_list.h"
#include "tools/report/verdict_text.h"

namespace quorvelctl {
namespace {

/// Holds the metadata of all but the oddest reports; of those the rest is read as well.
constexpr size_t kMetadataBytes = size_t{64} * 1024;
constexpr size_t kMaxTopRows = 1'000'000;
constexpr size_t kMaxAppsNamed = 20;

constexpr const char* kNoneLeft = "no report is left by these conditions";

void readMetadata(const std::string& path, ReportEntry& entry) {
  std::error_code code;
  std::optional<ReportMetadata> metadata;
  std::optional<std::string> text = readStart(path, kMetadataBytes, code);
  if (text) metadata = parseReportMetadata(*text, entry.problem);
  if (!metadata && text && text->size() == kMetadataBytes) {
    text = readFile(path, kMaxFileBytes, code);
    if (text) metadata = parseReportMetadata(*text, entry.problem);
  }
  if (!text) entry.problem = code.message();
  if (!metadata) return;
  entry.problem.clear();
  entry.metadata = std::move(*metadata);
}

/// An application that no report is of is a mistake rather than a question.
bool knowsApp(Context& context, const std::vector<ReportEntry>& entries, const std::string& app) {
  std::set<std::string> apps;
  for (const ReportEntry& entry : entries) {
    if (entry.problem.empty()) apps.insert(entry.metadata.header.processName());
  }
  if (app.empty() || apps.contains(app)) return true;
  std::string text = "no report is of \"" + printable(app) + "\"; there are";
  size_t named = 0;
  for (const std::string& each : apps) {
    if (++named > kMaxAppsNamed) break;
    text += (named == 1 ? " reports of " : ", ") + printable(each);
  }
  if (apps.empty()) text += " none";
  if (apps.size() > kMaxAppsNamed) text += ", and " + std::to_string(apps.size() - kMaxAppsNamed) + " others";
  context.fail(text);
  return false;
}

struct ListArguments {
  ReportFilter filter;
  std::string since;
  std::string sort = "date";
  size_t top = 10;
};

/// The reports that are asked for, sorted. Nothing when they can't be had, which has been told.
std::optional<std::vector<ReportEntry>> readReports(Context& context, const ListArguments& arguments) {
  const std::optional<time_t> since = sinceOption(context, arguments.since);
  auto entries = since ? spoolEntries(context) : std::nullopt;
  if (!entries) return std::nullopt;
  for (ReportEntry& entry : *entries) readMetadata(context.path(kSpool) + "/" + entry.fileName, entry);
  if (entries->empty() && !context.json) std::puts(kNoReport);
  if (entries->empty()) return entries;
  if (!knowsApp(context, *entries, arguments.filter.app)) return std::nullopt;
  ReportFilter filter = arguments.filter;
  filter.since = *since;
  std::erase_if(*entries, [&](const ReportEntry& entry) { return !filter.takes(entry); });
  if (entries->empty() && !context.json) std::puts(kNoneLeft);
  sortReports(*entries, arguments.sort);
  return entries;
}

nlohmann::ordered_json entryJson(const ReportEntry& entry) {
  nlohmann::ordered_json json{
      {"file", entry.fileName}, {"date", utcTime(entry.writtenAt)}, {"sizeBytes", entry.sizeBytes}};
  if (!entry.problem.empty()) {
    json["problem"] = entry.problem;
    return json;
  }
  const ReportMetadata& metadata = entry.metadata;
  const ReportHeader& header = metadata.header;
  json.update({{"kind", header.kind()},
               {"process", header.processName()},
               {"pid", header.pid},
               {"name", header.serviceName},
               {"reason", header.reason},
               {"durationMs", nullptr},
               {"cause", textOrNull(metadata.verdict ? metadata.verdict->cause : "")},
               {"culprit", textOrNull(culpritOf(metadata))},
               {"signature", textOrNull(metadata.signature)}});
  if (header.durationMs() >= 0) json["durationMs"] = header.durationMs();
  return json;
}

void listReports(Context& context, const ListArguments& arguments) {
  const auto entries = readReports(context, arguments);
  if (!entries) return;
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  if (context.json) {
    for (const ReportEntry& entry : *entries) json.push_back(entryJson(entry));
    std::fputs(jsonText(json).c_str(), stdout);
  } else if (!entries->empty()) {
    std::fputs(reportTable(*entries).c_str(), stdout);
  }
}

nlohmann::ordered_json groupJson(const ReportGroup& group) {
  const ReportMetadata& metadata = group.longest->metadata;
  return {{"signature", metadata.signature},
          {"reports", group.reports},
          {"totalMs", group.totalMs},
          {"longestMs", std::max(metadata.header.durationMs(), 0.0)},
          {"processes", group.apps},
          {"cause", textOrNull(metadata.verdict ? metadata.verdict->cause : "")},
          {"culprit", textOrNull(culpritOf(metadata))},
          {"sentence", textOrNull(metadata.verdict ? metadata.verdict->sentence : "")},
          {"file", group.longest->fileName}};
}

void showTop(Context& context, const ListArguments& arguments) {
  const auto entries = readReports(context, arguments);
  if (!entries) return;
  std::vector<ReportGroup> groups = reportGroups(*entries);
  if (context.json) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const ReportGroup& group : groups) json.push_back(groupJson(group));
    std::fputs(jsonText(json).c_str(), stdout);
    return;
  }
  const auto without = static_cast<size_t>(std::count_if(
      entries->begin(), entries->end(), [](const auto& entry) { return entry.metadata.signature.empty(); }));
  const size_t left = groups.size() - std::min(groups.size(), arguments.top);
  groups.resize(groups.size() - left);
  if (!groups.empty()) std::fputs(groupTable(groups).c_str(), stdout);
  if (left > 0) std::printf("%zu more; --top shows more\n", left);
  if (without > 0)
    std::printf("%zu without a signature: unreadable, without a verdict, or of an earlier version\n",
                without);
}

void addFilters(CLI::App& command, ListArguments& arguments) {
  command
      .add_option("--since", arguments.since,
                  "Reports from then on: 90m, 24h, 7d, 2w ago, a date, a UTC time")
      ->type_name("WHEN");
  command.add_option("--cause", arguments.filter.cause, "Those of this cause")
      ->check(CLI::IsMember(causeNames()))
      ->type_name("CAUSE");
  command
      .add_option("--app", arguments.filter.app, "Those of this process, or of this application's launches")
      ->type_name("NAME");
}

}  // namespace

void addReportListCommands(CLI::App& reports, Context& context) {
  auto listed = std::make_shared<ListArguments>();
  CLI::App* list =
      reports.add_subcommand("list", "The reports, oldest first, with their causes and culprits");
  addFilters(*list, *listed);
  list->add_option("--sort", listed->sort, "date, duration, size, cause, app or culprit")
      ->check(CLI::IsMember(reportSortKeys()))
      ->type_name("KEY");
  list->callback([listed, &context] { listReports(context, *listed); });

  auto grouped = std::make_shared<ListArguments>();
  CLI::App* top =
      reports.add_subcommand("top", "Which hangs cost the most time: reports by their signatures");
  addFilters(*top, *grouped);
  top->add_option("--top", grouped->top, "Signatures to show, 10 if not given; JSON has all")
      ->check(CLI::Range(size_t{1}, kMaxTopRows))
      ->type_name("N");
  top->callback([grouped, &context] { showTop(context, *grouped); });
}

}  // namespace quorvelctl
