#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/memory/memory_now.h"
#include "tools/memory/now_text.h"

namespace quorvelctl {
namespace {

using OrderedJson = nlohmann::ordered_json;

struct NowArguments {
  NowLayout layout;
  unsigned watchSeconds = 0;  ///< 0: once
};

/// Columns of the terminal; 0: standard output is none.
size_t terminalWidth() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

OrderedJson optionalJson(const std::optional<uint64_t>& bytes) {
  return bytes ? OrderedJson(*bytes) : OrderedJson(nullptr);
}

OrderedJson processesJson(const MemoryNow& now) {
  OrderedJson json = OrderedJson::array();
  for (const NowProcess& process : now.processes) {
    json.push_back({{"pid", process.pid},
                    {"name", process.name},
                    {"program", process.program},
                    {"commandLine", process.commandLine},
                    {"user", process.user},
                    {"cgroup", process.cgroup},
                    {"sizeBytes", process.ownBytes()},
                    {"isUpperBound", !process.shareBytes},
                    {"pssBytes", optionalJson(process.pssBytes)},
                    {"ussBytes", optionalJson(process.ussBytes)},
                    {"residentBytes", process.residentBytes},
                    {"fileBytes", process.fileBytes},
                    {"sharedBytes", process.sharedBytes},
                    {"swapBytes", process.swapBytes},
                    {"hugeBytes", process.hugeBytes},
                    {"tableBytes", process.tableBytes}});
  }
  return json;
}

OrderedJson rowsJson(const std::vector<NowRow>& rows) {
  OrderedJson json = OrderedJson::array();
  for (const NowRow& row : rows) {
    json.push_back({{"name", row.name},
                    {"count", row.count},
                    {"sizeBytes", row.ownBytes},
                    {"isUpperBound", row.isUpperBound},
                    {"pssBytes", row.pssBytes},
                    {"ussBytes", row.ussBytes},
                    {"fileBytes", row.fileBytes},
                    {"sharedBytes", row.sharedBytes},
                    {"swapBytes", row.swapBytes},
                    {"hugeBytes", row.hugeBytes},
                    {"tableBytes", row.tableBytes}});
  }
  return json;
}

OrderedJson cgroupsJson(const MemoryNow& now) {
  OrderedJson json = OrderedJson::array();
  for (const auto& [path, memory] : now.cgroups) {
    json.push_back({{"path", path},
                    {"currentBytes", memory.currentBytes},
                    {"anonymousBytes", memory.anonymousBytes},
                    {"fileBytes", memory.fileBytes},
                    {"sharedBytes", memory.sharedBytes},
                    {"kernelBytes", memory.kernelBytes},
                    {"socketBytes", memory.socketBytes},
                    {"swapBytes", memory.swapBytes},
                    {"highBytes", optionalJson(memory.highBytes)},
                    {"maxBytes", optionalJson(memory.maxBytes)},
                    {"highEvents", memory.highEvents},
                    {"maxEvents", memory.maxEvents},
                    {"killEvents", memory.killEvents}});
  }
  return json;
}

OrderedJson nowJson(const MemoryNow& now, const NowLayout& layout) {
  OrderedJson json;
  const std::optional<MemoryAccount> account = accountOf(now.report);
  OrderedJson parts = OrderedJson::array();
  for (const NamedBytes& part : account ? account->parts : std::vector<NamedBytes>()) {
    parts.push_back({{"name", part.name}, {"bytes", part.bytes}});
  }
  json["account"] = account ? OrderedJson{{"totalBytes", account->totalBytes},
                                          {"parts", parts},
                                          {"unaccountedBytes", account->unaccountedBytes}}
                            : OrderedJson(nullptr);
  if (layout.by == NowBy::process) {
    json["processes"] = processesJson(now);
  } else {
    json["groups"] = rowsJson(nowRows(now.processes, layout.by, layout.sort));
  }
  json["cgroups"] = cgroupsJson(now);
  json["shared"] = OrderedJson::array();
  for (const SharedObject& object : now.shared) {
    json["shared"].push_back(
        {{"kind", object.kind}, {"name", object.name}, {"bytes", object.bytes}, {"pids", object.pids}});
  }
  json["tmpfs"] = OrderedJson::array();
  for (const TmpfsUse& use : now.tmpfs) {
    json["tmpfs"].push_back({{"path", use.path}, {"usedBytes", use.usedBytes}, {"sizeBytes", use.sizeBytes}});
  }
  json["zones"] = OrderedJson::array();
  for (const NamedBytes& zone : now.report.zones) {
    json["zones"].push_back({{"name", zone.name}, {"bytes", zone.bytes}});
  }
  json["refusedProcesses"] = now.refused;
  return json;
}

/// Tells of this moment; the rows, to compare the next one with. Nothing when it can't be read, as told.
std::optional<std::vector<NowRow>> showNow(Context& context, NowLayout layout,
                                           const std::vector<NowRow>* before) {
  std::string error;
  const std::optional<MemoryNow> now = readMemoryNow(error);
  if (!now) {
    context.fail(error);
    return std::nullopt;
  }
  layout.width = terminalWidth();
  const std::string text =
      context.json ? jsonText(nowJson(*now, layout)) : memoryNowText(*now, layout, before);
  std::fputs(text.c_str(), stdout);
  return nowRows(now->processes, layout.by, layout.sort);
}

void watchNow(Context& context, const NowArguments& arguments) {
  const bool clears = arguments.watchSeconds > 0 && !context.json && terminalWidth() > 0;
  std::optional<std::vector<NowRow>> before;
  do {
    if (before) std::this_thread::sleep_for(std::chrono::seconds(arguments.watchSeconds));
    if (clears) std::fputs("\x1b[H\x1b[2J", stdout);
    before = showNow(context, arguments.layout, before ? &*before : nullptr);
  } while (before && arguments.watchSeconds > 0 && std::fflush(stdout) == 0);
}

}  // namespace

void addMemoryNowCommand(CLI::App& memory, Context& context) {
  auto given = std::make_shared<NowArguments>();
  CLI::App* command = memory.add_subcommand("now", "Where the memory is at this moment, without a report");
  const std::map<std::string, NowBy> ways = {{"process", NowBy::process},
                                             {"program", NowBy::program},
                                             {"cgroup", NowBy::cgroup},
                                             {"user", NowBy::user}};
  command->add_option("--by", given->layout.by, "What is taken together: process, program, cgroup or user")
      ->transform(CLI::Transformer(ways))
      ->type_name("WHAT");
  command
      ->add_option("--sort", given->layout.sort, "size, pss, uss, swap, huge, shared, file, tables or name")
      ->check(CLI::IsMember(nowSortKeys()))
      ->type_name("KEY");
  command->add_option("--top", given->layout.maxRows, "Rows of each table, 20 if not given; JSON has all")
      ->check(CLI::Range(size_t{1}, size_t{1'000'000}))
      ->type_name("N");
  command
      ->add_option("--watch", given->watchSeconds, "Show it again every so many seconds, with what changed")
      ->check(CLI::Range(1U, 86'400U))
      ->type_name("SECONDS");
  command->callback([given, &context] { watchNow(context, *given); });
}

}  // namespace quorvelctl
