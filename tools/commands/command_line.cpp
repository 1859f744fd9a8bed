#include "tools/commands/command_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/include/quorvel.h"
#include "tools/base/table.h"
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

constexpr std::array<std::pair<const char*, void (*)(CLI::App&, Context&)>, 7> kFamilies{{
    {"prefs", addPrefsCommands},
    {"notify", addNotifyCommand},
    {"reports", addReportsCommands},
    {"memory", addMemoryCommands},
    {"metrics", addMetricsCommand},
    {"launch", addLaunchCommand},
    {"activations", addActivationsCommand},
}};

/// Adds the commands, or those alone that begin with `first` if any do: a command that is launched is not to
/// wait for all the others' options.
void addCommands(CLI::App& app, Context& context, std::string_view first) {
  const auto asked = std::ranges::find(kFamilies, first, [](const auto& family) { return family.first; });
  if (asked != kFamilies.end()) return asked->second(app, context);
  for (const auto& [name, add] : kFamilies) add(app, context);
}

/// What the arguments ask for, as far as they were understood.
const CLI::App& commandOf(const CLI::App& app) {
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
  return *command;
}

/// What to say where one of `known` was to follow.
std::string unknownText(const std::vector<std::string>& unknown, const std::vector<const CLI::App*>& known) {
  std::string text =
      unknown.empty() ? "which command?" : "there is no command \"" + printable(unknown.front()) + "\";";
  for (const CLI::App* each : known)
    text += (each == known.front() ? " there are " : ", ") + each->get_name();
  return text;
}

/// What to say of an argument that `command` doesn't take.
std::string extraText(const std::string& extra, const CLI::App& command) {
  const std::string quoted = '"' + printable(extra) + '"';
  if (command.get_name() == "launch") return "the command to launch stands behind \"--\", not so " + quoted;
  return quoted + " is one argument too many";
}

/// What is wrong with the command line, on one line that begins like every other error.
std::string wrongUsage(const CLI::App* app, const CLI::Error& error) {
  const CLI::App& command = commandOf(*app);
  const auto known = command.get_subcommands([](const CLI::App*) { return true; });
  const std::vector<std::string> extra = app->remaining(true);
  const auto option = std::ranges::find_if(extra, [](const auto& each) { return each.starts_with('-'); });
  std::string text = error.what();
  if (option != extra.end())
    text = "there is no option \"" + *option + '"';
  else if (error.get_name() == "RequiredError" && !known.empty())
    text = unknownText(extra, known);
  else if (!extra.empty())
    text = extraText(extra.front(), command);
  std::string path;
  for (const CLI::App* each = &command; each; each = each->get_parent()) path.insert(0, each->get_name() + ' ');
  return "quorvelctl: " + printable(text) + "; see " + path + "--help\n";
}

/// A collector that keeps what we wrote must not take a cut-off text for the whole: a full disk is a failure.
void checkOutput(Context& context) {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    context.fail("the output could not be written: " + std::string(std::strerror(errno)));
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  Context context;
  context.command = takeCommand(argc, argv);
  CLI::App app{"Looks after quorveld: its preferences, notifications, reports and counters.", "quorvelctl"};
  app.fallthrough();
  app.require_subcommand(1);
  app.failure_message(wrongUsage);
  app.add_option("--root", context.root, "Folder below which the daemon's files are")
      ->envname("QUORVELD_ROOT")
      ->check(CLI::ExistingDirectory)
      ->type_name("DIR");
  app.set_version_flag("--version", "quorvelctl " QV_VERSION);
  app.add_flag("--json", context.json, "Answer in JSON");
  app.footer("Every command takes --root DIR and --json. Exit status: 0 done, 1 failed, 2 wrong usage.");
  addCommands(app, context, argc > 1 ? argv[1] : "");
  if (winsize size{}; ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    setTableWidth(size.ws_col);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) != 0) return kWrongUsage;
  }
  checkOutput(context);
  return context.status;
}

}  // namespace quorvelctl
