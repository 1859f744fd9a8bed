#pragma once

#include "kelvane/verdict/evidence.h"
#include "kelvane/verdict/verdict.h"

namespace kelvane {

/// Judges the hang. Reads nothing but `evidence`.
Verdict judge(const Evidence& evidence);

}  // namespace kelvane
