#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/commands/spool.h"
#include "tools/export/report_line.h"

namespace quorvelctl {
namespace {

struct ExportArguments {
  std::string since;  ///< empty: all
  std::string out;    ///< empty: standard output
  std::string device;
  bool deleteAfter = false;
};

std::string hostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/// The line of one report; empty when it can't be read, which has been told and is no failure: the others are
/// not held up by it, and it stays where it is.
std::string lineOf(Context& context, const ReportEntry& entry, const std::string& device) {
  std::error_code code;
  std::string error;
  const auto text = readFile(context.path(kSpool) + "/" + entry.fileName, kMaxFileBytes, code);
  const std::optional<Report> report = text ? parseReport(*text, error) : std::nullopt;
  if (!report) {
    std::fprintf(stderr, "quorvelctl: %s is left out: %s\n", printable(entry.fileName).c_str(),
                 printable(text ? error : code.message()).c_str());
    return {};
  }
  return reportLine(*report, entry.fileName, entry.writtenAt, device)
             .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
         '\n';
}

void exportReports(Context& context, const ExportArguments& arguments) {
  const std::optional<time_t> since = sinceOption(context, arguments.since);
  if (!since) return;
  const auto entries = spoolEntries(context);
  if (!entries) return;
  std::string lines;
  std::vector<std::string> exported;
  for (const ReportEntry& entry : *entries) {
    if (entry.writtenAt < *since) continue;
    const std::string line = lineOf(context, entry, arguments.device);
    if (line.empty()) continue;
    lines += line;
    exported.push_back(entry.fileName);
  }
  if (arguments.out.empty()) {
    std::fputs(lines.c_str(), stdout);
    return;
  }
  if (const std::error_code error = appendSynced(arguments.out, lines)) {
    context.fail("can't write " + arguments.out + ": " + error.message() + "; no report was removed");
    return;
  }
  if (!arguments.deleteAfter) return;
  for (const std::string& name : exported) {
    const std::string path = context.path(kSpool) + "/" + name;
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
      context.fail("can't remove " + path + ": " + std::generic_category().message(errno));
  }
}

}  // namespace

void addExportCommand(CLI::App& reports, Context& context) {
  auto arguments = std::make_shared<ExportArguments>();
  arguments->device = hostName();
  CLI::App* command =
      reports.add_subcommand("export", "A flat line of JSON for each report, for a collector");
  command
      ->add_option("--since", arguments->since,
                   "Reports from then on: 90m, 24h, 7d, 2w ago, a date, a UTC time")
      ->type_name("WHEN");
  CLI::Option* out = command->add_option("-o,--output", arguments->out,
                                         "Append the lines to this file; standard output if not given");
  out->type_name("OUT");
  command->add_flag("--ndjson")->description("One object a line: the only form, for scripts to say so");
  command->add_option("--device", arguments->device, "What the lines call this device")
      ->capture_default_str()
      ->type_name("NAME");
  command
      ->add_flag("--delete-after", arguments->deleteAfter,
                 "Remove the reports whose lines are in OUT, once these are on the disk")
      ->needs(out);
  command->callback([arguments, &context] { exportReports(context, *arguments); });
}

}  // namespace quorvelctl
