#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/commands/output_file.h"
#include "tools/launches/activation.h"
#include "tools/launches/activation_text.h"
#include "tools/launches/launch_record.h"
#include "tools/launches/launches_by_app.h"
#include "tools/page/launches_html.h"

namespace quorvelctl {
namespace {

constexpr size_t kDefaultShown = 5;
constexpr size_t kMostShown = 1000000;

struct ActivationArguments {
  size_t last = kDefaultShown;
  bool all = false;
  std::string by;    ///< "app": each application's together; empty: each on its own
  std::string html;  ///< where the page goes; empty: none is asked for
};

/// False when there is a log that can't be read, which has been told.
bool readLog(Context& context, const char* log, ActivationReader& reader) {
  const std::string path = context.path(log);
  std::error_code error;
  const std::optional<std::string> text = readFile(path, kMaxFileBytes, error);
  if (!text && error != std::errc::no_such_file_or_directory) {
    context.fail("can't read the activations in " + path + ": " + error.message());
    return false;
  }
  const size_t broken = reader.brokenLines();
  if (text) reader.read(*text);
  if (reader.brokenLines() > broken) {
    std::fprintf(stderr, "quorvelctl: %zu broken lines in %s, skipped\n", reader.brokenLines() - broken,
                 path.c_str());
  }
  return true;
}

void showByApp(Context& context, const ActivationReader& reader, const std::string& html) {
  constexpr double kReferenceDate = 978'307'200;  // 2001-01-01 00:00:00 UTC in Unix time
  const double now = static_cast<double>(std::time(nullptr)) - kReferenceDate;
  const auto apps = launchesByApp(reader.activations(), now);
  constexpr const char* kNone = "no launch recorded yet that has come up";
  if (!html.empty() && apps.empty()) {
    context.fail(kNone);
  } else if (!html.empty()) {
    writeOutput(context, html, launchesPage(apps, now));
  } else if (context.json) {
    std::fputs(jsonText(launchesByAppJson(apps)).c_str(), stdout);
  } else if (apps.empty()) {
    std::puts(kNone);
  } else {
    std::fputs(launchesByAppText(apps).c_str(), stdout);
  }
}

void showActivations(Context& context, const ActivationArguments& arguments) {
  ActivationReader reader;
  if (!readLog(context, kOlderActivationLog, reader) || !readLog(context, kActivationLog, reader)) return;
  if (!arguments.by.empty()) return showByApp(context, reader, arguments.html);
  std::span<const Activation> shown(reader.activations());
  if (!arguments.all && shown.size() > arguments.last) shown = shown.last(arguments.last);
  if (context.json) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const Activation& activation : shown) json.push_back(activationJson(activation));
    std::fputs(jsonText(json).c_str(), stdout);
    return;
  }
  if (reader.activations().empty()) std::puts("no activation recorded yet");
  const auto pageBytes = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  bool first = true;
  for (const Activation& activation : shown) {
    std::printf("%s%s", first ? "" : "\n", activationText(activation, pageBytes).c_str());
    first = false;
  }
  if (const std::string reason = whyNoneIsRecorded(context); !reason.empty())
    std::printf("%snone is recorded now: %s\n", first ? "" : "\n", reason.c_str());
}

}  // namespace

void addActivationsCommand(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<ActivationArguments>();
  CLI::App* command = app.add_subcommand(
      "activations", "What launches and resumes cost, and whom: the last five, the newest at the end");
  CLI::Option* last = command->add_option("--last", arguments->last, "The last N instead");
  last->check(CLI::Range(size_t{1}, kMostShown, "N"));
  CLI::Option* all = command->add_flag("--all", arguments->all, "All of them")->excludes(last);
  CLI::Option* by =
      command
          ->add_option("--by", arguments->by,
                       "app: how long each application's launches on record took, the slowest first")
          ->check(CLI::IsMember({"app"}, CLI::ignore_case))
          ->excludes(last)
          ->excludes(all)
          ->type_name("app");
  command
      ->add_option("--html", arguments->html, "With --by app: draw them over time, as a page for a browser")
      ->needs(by)
      ->type_name("FILE");
  command->callback([arguments, &context] { showActivations(context, *arguments); });
}

}  // namespace quorvelctl
