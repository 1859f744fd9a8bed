#pragma once

#include "kelvane/capture/captured_process.h"
#include "kelvane/report/json_writer.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Adds the member "verdict" on the hang of `process` to an open object (docs/report-format.md).
void writeVerdict(JsonWriter& json, const Verdict& verdict, const ProcessCapture& process);

/// The thread's names, into an open object.
void writeNames(JsonWriter& json, const NamedThread& thread);

}  // namespace kelvane
