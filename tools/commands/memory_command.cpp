#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/commands/memory_folder.h"
#include "tools/commands/output_file.h"
#include "tools/export/since.h"
#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_growth.h"
#include "tools/memory/memory_list.h"
#include "tools/memory/memory_report.h"
#include "tools/memory/memory_text.h"
#include "tools/page/memory_html.h"

namespace quorvelctl {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kShortTable = 20;
constexpr size_t kMostGrowthReports = 1000;
constexpr size_t kMostDrawnReports = 400;  ///< more have less than two pixels each

OrderedJson listJson(const std::vector<NamedBytes>& entries) {
  OrderedJson json = OrderedJson::array();
  for (const NamedBytes& entry : entries) json.push_back({{"name", entry.name}, {"bytes", entry.bytes}});
  return json;
}

OrderedJson accountJson(const MemoryReport& report) {
  const std::optional<MemoryAccount> account = accountOf(report);
  if (!account) return nullptr;
  return {{"totalBytes", account->totalBytes},
          {"parts", listJson(account->parts)},
          {"unaccountedBytes", account->unaccountedBytes}};
}

OrderedJson reportJson(const MemoryReport& report) {
  OrderedJson processes = OrderedJson::array();
  for (const MemoryProcess& process : report.processes) {
    processes.push_back({{"name", process.name},
                         {"priority", process.priority},
                         {"footprintBytes", process.footprintBytes},
                         {"dirty", process.dirty},
                         {"assertions", process.assertions}});
  }
  OrderedJson counters = OrderedJson::object();
  for (const auto& [name, value] : report.counters) counters[name] = value;
  OrderedJson json{{"timestamp", report.timestamp},
                   {"model", report.model},
                   {"osVersion", report.osVersion},
                   {"pageSizeBytes", report.pageSizeBytes}};
  if (!report.vmError.empty()) json["vmError"] = report.vmError;
  json.update({{"account", accountJson(report)},
               {"vmCounters", counters},
               {"processes", processes},
               {"footprintsAreUpperBounds", hasUpperBounds(report)},
               {"zones", listJson(report.zones)},
               {"uses", listJson(report.uses)},
               {"consumers", listJson(report.consumers)},
               {"totals", listJson(report.totals)}});
  return json;
}

OrderedJson changesJson(const std::vector<MemoryChange>& changes) {
  OrderedJson json = OrderedJson::array();
  for (const MemoryChange& change : changes) {
    json.push_back({{"name", change.name},
                    {"changeBytes", change.bytes()},
                    {"oldBytes", change.oldBytes},
                    {"newBytes", change.newBytes},
                    {"oldCount", change.oldCount},
                    {"newCount", change.newCount}});
  }
  return json;
}

OrderedJson diffJson(const MemoryReport& older, const MemoryReport& newer) {
  const MemoryDiff diff = diffOf(older, newer);
  OrderedJson counters = OrderedJson::array();
  for (const CounterChange& change : diff.counters) {
    counters.push_back({{"name", change.name},
                        {"change", change.change()},
                        {"old", change.oldValue},
                        {"new", change.newValue}});
  }
  return {{"oldTimestamp", older.timestamp},
          {"newTimestamp", newer.timestamp},
          {"account", changesJson(diff.account)},
          {"processes", changesJson(diff.processes)},
          {"zones", changesJson(diff.zones)},
          {"uses", changesJson(diff.uses)},
          {"consumers", changesJson(diff.consumers)},
          {"totals", changesJson(diff.totals)},
          {"vmCounters", counters}};
}

OrderedJson growthsJson(const std::vector<Growth>& all) {
  OrderedJson json = OrderedJson::array();
  for (const Growth& growth : all) {
    json.push_back({{"kind", growth.kind},
                    {"name", growth.name},
                    {"bytesPerHour", growth.trend.bytesPerHour},
                    {"plusMinusBytesPerHour", growth.trend.plusMinus},
                    {"lateBytesPerHour", growth.trend.lateBytesPerHour},
                    {"nowBytes", growth.nowBytes}});
  }
  return json;
}

OrderedJson growthJson(const MemoryGrowth& growth) {
  return {{"from", growth.from},
          {"to", growth.to},
          {"reports", growth.reports},
          {"reportsBeforeStart", growth.beforeStart},
          {"growing", growthsJson(growth.growing)},
          {"grown", growthsJson(growth.grown)}};
}

struct MemoryArguments {
  std::string file;  ///< or the older one
  std::string newer;
  std::string since = "7d";
  std::string html;  ///< where the page goes; empty: none is asked for
  bool all = false;

  size_t maxRows() const { return all ? std::numeric_limits<size_t>::max() : kShortTable; }
};

/// The reports of the span that `arguments` name; nothing, as told, when they name none.
std::vector<MemoryReport> reportsOf(Context& context, const MemoryArguments& arguments, size_t most) {
  const time_t seconds = secondsOfSpan(arguments.since).value_or(0);
  if (seconds != 0) return memoryReportsSince(context, static_cast<double>(seconds) / 3600, most);
  context.fail("--since takes a number and m, h, d or w, as in 7d", kWrongUsage);
  return {};
}

/// A report that was named is alone on its page.
void drawMemory(Context& context, const MemoryArguments& arguments) {
  std::vector<MemoryReport> reports;
  if (arguments.file.empty()) {
    reports = reportsOf(context, arguments, kMostDrawnReports);
  } else if (auto report = readMemoryReport(context, arguments.file)) {
    reports.push_back(std::move(*report));
  }
  if (!reports.empty()) return writeOutput(context, arguments.html, memoryPage(reports));
  if (context.status == 0) context.fail(kNoMemoryReport);
}

void showMemory(Context& context, const MemoryArguments& arguments) {
  if (!arguments.html.empty()) return drawMemory(context, arguments);
  const std::optional<MemoryReport> report = readMemoryReport(context, arguments.file);
  if (!report) return;
  const std::string text =
      context.json ? jsonText(reportJson(*report)) : memoryText(*report, arguments.maxRows());
  std::fputs(text.c_str(), stdout);
}

void diffMemory(Context& context, const MemoryArguments& arguments) {
  const std::optional<MemoryReport> older = readMemoryReport(context, arguments.file);
  if (!older) return;
  const std::optional<MemoryReport> newer = readMemoryReport(context, arguments.newer);
  if (!newer) return;
  const std::string text =
      context.json ? jsonText(diffJson(*older, *newer)) : memoryDiffText(*older, *newer, arguments.maxRows());
  std::fputs(text.c_str(), stdout);
}

OrderedJson sizeJson(const std::optional<uint64_t>& bytes) {
  return bytes ? OrderedJson(*bytes) : OrderedJson(nullptr);
}

OrderedJson listJson(const std::vector<MemoryListEntry>& entries) {
  OrderedJson json = OrderedJson::array();
  for (const MemoryListEntry& entry : entries) {
    json.push_back({{"report", entry.fileName},
                    {"timestamp", entry.timestamp},
                    {"boot", entry.boot},
                    {"fileBytes", entry.fileBytes},
                    {"totalBytes", sizeJson(entry.totalBytes)},
                    {"freeBytes", sizeJson(entry.freeBytes)},
                    {"biggestProcess", entry.biggest},
                    {"biggestBytes", entry.biggestBytes}});
  }
  return json;
}

/// The newest last, so that a terminal shows it.
void listMemory(Context& context, const MemoryArguments& arguments) {
  std::multimap<double, std::string> paths = memoryReportPaths(context);
  if (paths.empty() && context.status != 0) return;
  if (paths.empty() && !context.json) return tellNoMemoryReport(context);
  const size_t most = context.json ? paths.size() : arguments.maxRows();
  size_t older = 0;
  for (; paths.size() > most; ++older) paths.erase(paths.begin());
  std::vector<MemoryListEntry> entries;
  for (const auto& [at, path] : paths) {
    const std::optional<MemoryReport> report = readMemoryReport(context, path);
    if (!report) continue;
    entries.push_back(listEntryOf(*report));
    entries.back().fileName = std::filesystem::path(path).filename();
    std::error_code gone;
    const auto bytes = std::filesystem::file_size(path, gone);
    entries.back().fileBytes = gone ? 0 : bytes;
  }
  tellBoots(entries);
  const std::string text = context.json ? jsonText(listJson(entries)) : memoryListText(entries, older);
  std::fputs(text.c_str(), stdout);
}

void showGrowth(Context& context, const MemoryArguments& arguments) {
  const std::vector<MemoryReport> reports = reportsOf(context, arguments, kMostGrowthReports);
  if (reports.empty() && context.status != 0) return;
  if (reports.empty()) return tellNoMemoryReport(context);
  const MemoryGrowth growth = growthOf(reports);
  const std::string text =
      context.json ? jsonText(growthJson(growth)) : memoryGrowthText(growth, arguments.maxRows());
  std::fputs(text.c_str(), stdout);
}

}  // namespace

void addMemoryCommands(CLI::App& app, Context& context) {
  CLI::App* memory = app.add_subcommand("memory", "Show and compare the memory reports");
  memory->require_subcommand(1);
  constexpr const char* kAll = "Whole tables, not their first 20 rows; JSON always has all";

  auto listed = std::make_shared<MemoryArguments>();
  CLI::App* listing = memory->add_subcommand("list", "The reports in the log directory, the newest last");
  listing->add_flag("--all", listed->all, "All of them, not the newest 20; JSON always has all");
  listing->callback([listed, &context] { listMemory(context, *listed); });

  auto shown = std::make_shared<MemoryArguments>();
  CLI::App* showing = memory->add_subcommand("show", "Where the memory was, in tables, largest first");
  CLI::Option* file = showing->add_option(
      "FILE", shown->file, "Its name in the log directory, or a path; the newest if not given");
  showing->add_flag("--all", shown->all, kAll);
  CLI::Option* html = showing
                          ->add_option("--html", shown->html,
                                       "Write it as a page for a browser instead, or, with no FILE, all "
                                       "reports of the last 7 days, drawn over time")
                          ->type_name("OUT");
  showing
      ->add_option("--since", shown->since, "On that page: how far back from the newest report, as 36h, 2w")
      ->type_name("SPAN")
      ->needs(html)
      ->excludes(file);
  showing->callback([shown, &context] { showMemory(context, *shown); });

  auto compared = std::make_shared<MemoryArguments>();
  CLI::App* comparing = memory->add_subcommand("diff", "What grew and what shrank, largest change first");
  comparing->add_option("OLD", compared->file, "Name or path of the older report")->required();
  comparing->add_option("NEW", compared->newer, "Name or path of the newer one; the newest if not given");
  comparing->add_flag("--all", compared->all, kAll);
  comparing->callback([compared, &context] { diffMemory(context, *compared); });
  addMemoryNowCommand(*memory, context);

  auto grown = std::make_shared<MemoryArguments>();
  CLI::App* growing = memory->add_subcommand("growth", "What grows steadily from report to report");
  growing
      ->add_option("--since", grown->since,
                   "How far back from the newest report: 7d if not given, or 36h, 2w")
      ->type_name("SPAN");
  growing->add_flag("--all", grown->all, kAll);
  growing->callback([grown, &context] { showGrowth(context, *grown); });
}

}  // namespace quorvelctl
