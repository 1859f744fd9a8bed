#pragma once

#include "kelvane/verdict/launch_verdict.h"

namespace kelvane {

/// Of a launch without a recording: what its process has had in its life, most of which the launch was, says
/// at least what did not make it slow. Leaves the cause as it is where that says nothing.
void judgeByLife(const LaunchEvidence& evidence, Verdict& verdict);

}  // namespace kelvane
