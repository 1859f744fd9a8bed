#pragma once

#include "kelvane/evidence.h"
#include "kelvane/verdict.h"

namespace kelvane {

/// Judges the hang. Reads nothing but `evidence`.
Verdict judge(const Evidence& evidence);

}  // namespace kelvane
