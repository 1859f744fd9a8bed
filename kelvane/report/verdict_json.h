#pragma once

#include "kelvane/report/json_writer.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Adds the member "verdict" to an open object (docs/report-format.md).
void writeVerdict(JsonWriter& json, const Verdict& verdict);

}  // namespace kelvane
