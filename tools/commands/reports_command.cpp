#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/commands/output_file.h"
#include "tools/commands/spool.h"
#include "tools/page/report_html.h"
#include "tools/report/report.h"
#include "tools/report/report_text.h"
#include "tools/symbols/symbolicate.h"
#include "tools/symbols/symbols.h"

namespace quorvelctl {
namespace {

/// Where the report that was asked for is: the newest when no name was given. Empty when there is none, which
/// has been told, and is a failure if there must be one.
std::string pathOf(Context& context, const std::string& name, bool mustBe) {
  if (name.find('/') != std::string::npos) return name;
  if (!name.empty()) return context.path(kSpool) + "/" + name;
  const auto entries = spoolEntries(context);
  if (entries && entries->empty() && mustBe) context.fail(kNoReport);
  if (entries && entries->empty() && !mustBe) std::puts(kNoReport);
  if (!entries || entries->empty()) return {};
  return context.path(kSpool) + "/" + entries->back().fileName;
}

/// All of a report's file; nothing when it can't be read, which has been told.
std::optional<std::string> readReport(Context& context, const std::string& path) {
  std::error_code error;
  std::optional<std::string> text = readFile(path, kMaxFileBytes, error);
  if (!text) context.fail("can't read " + path + ": " + error.message());
  return text;
}

struct ShowArguments {
  std::string file;
  std::string html;  ///< where the page goes; empty: none is asked for
  bool allSymbols = false;
  bool noSymbols = false;
};

void showReport(Context& context, const ShowArguments& arguments) {
  const std::string path = pathOf(context, arguments.file, context.json || !arguments.html.empty());
  if (path.empty()) return;
  const std::optional<std::string> text = readReport(context, path);
  if (!text) return;
  std::string error;
  std::optional<Report> report = parseReport(*text, error);
  if (!report) return context.fail(path + " is no report: " + error);
  if (context.json && arguments.html.empty()) {
    std::fwrite(text->data(), 1, text->size(), stdout);
    return;
  }
  if (!arguments.noSymbols) {
    Symbols symbols({}, arguments.allSymbols ? SymbolFiles::all : SymbolFiles::trusted);
    if (!symbols.problem().empty())
      std::fprintf(stderr, "quorvelctl: no function is named: %s\n", symbols.problem().c_str());
    nameFunctions(*report, symbols);
  }
  if (!arguments.html.empty()) {
    writeOutput(context, arguments.html, reportPage(*report));
  } else {
    std::fputs(reportText(*report).c_str(), stdout);
  }
}

struct SymbolicateArguments {
  std::string file;
  std::string out;  ///< empty: standard output
  std::vector<std::string> debugDirs;
};

void symbolicate(Context& context, const SymbolicateArguments& arguments) {
  const std::string path = pathOf(context, arguments.file, true);
  if (path.empty()) return;
  const std::optional<std::string> text = readReport(context, path);
  if (!text) return;
  Symbols symbols(arguments.debugDirs, SymbolFiles::all);
  if (!symbols.problem().empty()) return context.fail("no function can be named: " + symbols.problem());
  std::string error;
  const std::optional<NamedReport> named = nameReport(*text, symbols, error);
  if (!named) {
    context.fail(path + " is no report: " + error);
    return;
  }
  if (arguments.out.empty()) {
    std::fwrite(named->text.data(), 1, named->text.size(), stdout);
  } else {
    writeOutput(context, arguments.out, named->text);
  }
  std::fprintf(stderr, "quorvelctl: %zu of %zu frames named\n", named->named, named->frames);
  for (const std::string& module : named->withoutFile) {
    std::fprintf(stderr, "quorvelctl: no file with the build id of %s\n", printable(module).c_str());
  }
}

void addShow(CLI::App& reports, Context& context) {
  auto arguments = std::make_shared<ShowArguments>();
  CLI::App* command = reports.add_subcommand("show", "One report in words; with --json as it is");
  command->add_option("FILE", arguments->file, "Its name in the spool, or a path; the newest if not given");
  command->add_option("--html", arguments->html, "Write it as a page for a browser instead")
      ->type_name("OUT");
  CLI::Option* all = command->add_flag(
      "--symbols", arguments->allSymbols,
      "Name functions by all programs and libraries that the report names, not only by root's and one's own");
  command->add_flag("--no-symbols", arguments->noSymbols, "Name no functions: modules and offsets")
      ->excludes(all);
  command->callback([arguments, &context] { showReport(context, *arguments); });
}

void addSymbolicate(CLI::App& reports, Context& context) {
  auto arguments = std::make_shared<SymbolicateArguments>();
  CLI::App* command = reports.add_subcommand(
      "symbolicate", "The same report with functions named, by files with the build ids that it gives");
  command->add_option("FILE", arguments->file, "Its name in the spool, or a path")->required();
  command->add_option("-o,--output", arguments->out, "Where it goes; standard output if not given")
      ->type_name("OUT");
  command->add_option("--debug-dir", arguments->debugDirs, "Look for debug files here too")
      ->check(CLI::ExistingDirectory)
      ->allow_extra_args(false)
      ->type_name("DIR");
  command->callback([arguments, &context] { symbolicate(context, *arguments); });
}

}  // namespace

void addReportsCommands(CLI::App& app, Context& context) {
  CLI::App* reports = app.add_subcommand("reports", "Show the trace reports of hangs and slow launches");
  reports->require_subcommand(1);
  addReportListCommands(*reports, context);
  addShow(*reports, context);
  addExportCommand(*reports, context);
  addSymbolicate(*reports, context);
}

}  // namespace quorvelctl
