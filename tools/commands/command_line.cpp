#include "tools/commands/command_line.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "client/include/quorvel.h"
#include "tools/commands/commands.h"

namespace quorvelctl {
namespace {

/// Takes the command of `launch` off the command line: what follows "--". CLI11 would take arguments of it
/// apart that look like lists, "[...]".
std::vector<std::string> takeCommand(int& argc, char** argv) {
  const auto is = [](const char* text) {
    return [text](const char* a) { return std::strcmp(a, text) == 0; };
  };
  char** const end = argv + argc;
  char** const separator = std::find_if(argv, end, is("--"));
  if (separator == end || std::find_if(argv, separator, is("launch")) == separator) return {};
  argc = static_cast<int>(separator - argv);
  return {separator + 1, end};
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  Context context;
  context.command = takeCommand(argc, argv);
  CLI::App app{"Looks after quorveld: its preferences, notifications, reports and counters.", "quorvelctl"};
  app.fallthrough();
  app.require_subcommand(1);
  app.failure_message(CLI::FailureMessage::simple);
  app.add_option("--root", context.root, "Folder below which the daemon's files are")
      ->envname("QUORVELD_ROOT")
      ->check(CLI::ExistingDirectory)
      ->type_name("DIR");
  app.set_version_flag("--version", "quorvelctl " QV_VERSION);
  app.add_flag("--json", context.json, "Answer in JSON");
  app.footer("Every command takes --root DIR and --json. Exit status: 0 done, 1 failed, 2 wrong usage.");
  addPrefsCommands(app, context);
  addNotifyCommand(app, context);
  addReportsCommands(app, context);
  addMemoryCommands(app, context);
  addMetricsCommand(app, context);
  addLaunchCommand(app, context);
  addActivationsCommand(app, context);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongUsage;
  }
  if (std::fflush(stdout) != 0) context.fail("the output could not be written");
  return context.status;
}

}  // namespace quorvelctl
