#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <tuple>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/memory/memory_diff.h"
#include "tools/memory/memory_report.h"
#include "tools/memory/memory_text.h"

namespace quorvelctl {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr const char* kDirectory = "/Library/Logs/Faultkeep";
constexpr size_t kShortTable = 20;

/// The newest report; empty when there is none, as told.
std::string newestPath(Context& context) {
  const std::string directory = context.path(kDirectory);
  std::tuple<time_t, long, std::string> newest{};
  std::error_code error;
  for (std::filesystem::directory_iterator file(directory, error), end; !error && file != end;
       file.increment(error)) {
    const std::string name = file->path().filename();
    struct stat status {};
    if (!name.starts_with("memory-snapshot-") || !name.ends_with(".ips")) continue;
    if (lstat(file->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    newest = std::max(newest, {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, file->path().string()});
  }
  if (error) {
    context.fail("can't read the reports in " + directory + ": " + error.message());
  } else if (std::get<2>(newest).empty()) {
    context.fail("there is no memory report in " + directory);
  }
  return error ? "" : std::get<2>(newest);
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

struct MemoryArguments {
  std::string file;  ///< or the older one
  std::string newer;
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
}

}  // namespace quorvelctl
