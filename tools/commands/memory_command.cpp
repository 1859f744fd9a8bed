#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <tuple>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/export/since.h"
#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_growth.h"
#include "tools/memory/memory_report.h"
#include "tools/memory/memory_text.h"

namespace quorvelctl {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr const char* kDirectory = "/Library/Logs/Faultkeep";
constexpr std::string_view kReportPrefix = "memory-snapshot-";
constexpr size_t kShortTable = 20;

/// Names of the reports; none when the folder can't be read, as told.
std::vector<std::string> reportNames(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator file(directory, error), end; !error && file != end;
       file.increment(error)) {
    const std::string name = file->path().filename();
    if (!name.starts_with(kReportPrefix) || !name.ends_with(".ips")) continue;
    std::error_code gone;
    if (file->symlink_status(gone).type() == std::filesystem::file_type::regular) names.push_back(name);
  }
  if (error && error != std::errc::no_such_file_or_directory)
    context.fail("can't read the reports in " + directory + ": " + error.message());
  return names;
}

void tellNoReport(const Context& context) {
  std::puts(context.json ? "null"
                         : "no memory report yet; QuorvelEnableMemoryLogging has the daemon write them");
}

/// The newest report; empty when there is none, as told.
std::string newestPath(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::tuple<time_t, long, std::string> newest{};
  for (const std::string& name : reportNames(context)) {
    const std::string path = directory + "/" + name;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) continue;
    newest = std::max(newest, {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, path});
  }
  if (std::get<2>(newest).empty() && context.status == 0) tellNoReport(context);
  return std::get<2>(newest);
}

/// Reads a report by its path, its name in the log directory, or, without a name, the newest. Nothing when it
/// can't be, as told.
std::optional<MemoryReport> reportOf(Context& context, const std::string& name) {
  std::string path = name;
  if (name.empty()) {
    path = newestPath(context);
    if (path.empty()) return std::nullopt;
  } else if (name.find('/') == std::string::npos) {
    path = context.path(kDirectory) + "/" + name;
  }
  std::error_code code;
  const std::optional<std::string> text = readFile(path, kMaxMemoryReportBytes, code);
  if (!text) {
    context.fail("can't read " + path + ": " + code.message());
    return std::nullopt;
  }
  std::string error;
  std::optional<MemoryReport> report = parseMemoryReport(*text, error);
  if (!report) context.fail(path + " is no memory report: " + printable(error));
  return report;
}

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
  bool all = false;

  size_t maxRows() const { return all ? std::numeric_limits<size_t>::max() : kShortTable; }
};

void showMemory(Context& context, const MemoryArguments& arguments) {
  const std::optional<MemoryReport> report = reportOf(context, arguments.file);
  if (!report) return;
  const std::string text =
      context.json ? jsonText(reportJson(*report)) : memoryText(*report, arguments.maxRows());
  std::fputs(text.c_str(), stdout);
}

void diffMemory(Context& context, const MemoryArguments& arguments) {
  const std::optional<MemoryReport> older = reportOf(context, arguments.file);
  if (!older) return;
  const std::optional<MemoryReport> newer = reportOf(context, arguments.newer);
  if (!newer) return;
  const std::string text =
      context.json ? jsonText(diffJson(*older, *newer)) : memoryDiffText(*older, *newer, arguments.maxRows());
  std::fputs(text.c_str(), stdout);
}

/// The reports of the folder that are no older than `hours` before the newest, in order of time, evenly
/// thinned to kMostReports; one that can't be read is told and left out.
std::vector<MemoryReport> reportsSince(Context& context, double hours) {
  constexpr size_t kMostReports = 1000;
  const std::string directory = context.path(kDirectory);
  std::multimap<double, std::string> byHours;
  for (const std::string& name : reportNames(context)) {
    constexpr size_t kTimestampLength = 17;
    const auto at = hoursOf(name.substr(kReportPrefix.size(), kTimestampLength));
    if (at) byHours.emplace(*at, directory + "/" + name);
  }
  if (!byHours.empty()) byHours.erase(byHours.begin(), byHours.lower_bound(byHours.rbegin()->first - hours));
  std::vector<MemoryReport> reports;
  size_t index = 0;
  for (const auto& [at, path] : byHours) {
    const bool taken = index * kMostReports / byHours.size() != (index + 1) * kMostReports / byHours.size();
    ++index;
    if (!taken) continue;
    std::optional<MemoryReport> report = reportOf(context, path);
    if (report) reports.push_back(std::move(*report));
  }
  return reports;
}

void showGrowth(Context& context, const MemoryArguments& arguments) {
  const time_t seconds = secondsOfSpan(arguments.since).value_or(0);
  if (seconds == 0) return context.fail("--since takes a number and m, h, d or w, as in 7d", kWrongUsage);
  const std::vector<MemoryReport> reports = reportsSince(context, static_cast<double>(seconds) / 3600);
  if (reports.empty() && context.status != 0) return;
  if (reports.empty()) return tellNoReport(context);
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

  auto shown = std::make_shared<MemoryArguments>();
  CLI::App* showing = memory->add_subcommand("show", "Where the memory was, in tables, largest first");
  showing->add_option("FILE", shown->file,
                      "Its name in the log directory, or a path; the newest if not given");
  showing->add_flag("--all", shown->all, kAll);
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
