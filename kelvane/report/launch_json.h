#pragma once

#include "kelvane/report/json_writer.h"
#include "kelvane/verdict/launch.h"

namespace kelvane {

/// Adds the member "launch" to an open object (docs/report-format.md).
void writeLaunch(JsonWriter& json, const Launch& launch);

}  // namespace kelvane
