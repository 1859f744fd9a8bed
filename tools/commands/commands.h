#pragma once

#include <CLI/CLI.hpp>

#include "tools/base/context.h"

namespace quorvelctl {

// One family of commands each: adds them to the command line; they run while it is parsed and leave their
// status in `context`, which outlives the parsing.
void addPrefsCommands(CLI::App& app, Context& context);
void addNotifyCommand(CLI::App& app, Context& context);
void addReportsCommands(CLI::App& app, Context& context);
// Some of the reports' commands.
void addReportListCommands(CLI::App& reports, Context& context);
void addExportCommand(CLI::App& reports, Context& context);
void addMemoryCommands(CLI::App& app, Context& context);
void addMemoryNowCommand(CLI::App& memory, Context& context);  ///< to those
void addMetricsCommand(CLI::App& app, Context& context);
void addLaunchCommand(CLI::App& app, Context& context);
void addActivationsCommand(CLI::App& app, Context& context);

}  // namespace quorvelctl
