#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/report.h"
#include "tools/symbols/symbols.h"

namespace quorvelctl {

struct NamedReport {
  std::string text;   ///< the report's JSON, names apart as it was
  size_t frames = 0;  ///< user frames that it has, each counted once however many stacks share it
  size_t named = 0;   ///< of these, how many have a function's name now
  std::vector<std::string> withoutFile;  ///< modules for which no file was found
};

/// Puts names in the place of addresses: in the stack frames, in the intervals that draw them, and in the
/// verdict's sentence and functions. Nothing, and why, when `text` is no report.
std::optional<NamedReport> nameReport(std::string_view text, Symbols& symbols, std::string& error);

/// The same to a report that is shown: to its threads' stacks, the places of its samples, and its verdict.
void nameFunctions(Report& report, Symbols& symbols);

}  // namespace quorvelctl
